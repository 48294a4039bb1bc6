// MessageLoop: turns the messages of one queue into handler calls on one
// thread.
//
// The loop owns a MessageQueue. Producers on any thread enqueue messages on
// messageQueue(); the thread that runs dispatchMessages() takes them in
// arrival order and hands each one to the MessageHandler it carries
// (Message::messageHandler()), until requestExit(). Message flags play no part:
// every message is dispatched the same way. Each Thread owns one loop.
//
// Ownership: queued messages belong to the queue; a dispatched message is
// moved into its handler's handleMessage(std::unique_ptr<Message>), and one
// without a handler is destroyed unhandled, its descriptors closed. The loop
// holds the handler while it runs, so a handler whose message is its last
// owner lives until its call returns; it lets go before it waits. Messages
// still queued at exit are destroyed with the loop, not dispatched, their
// descriptors closed too. Thread: dispatchMessages() on the
// owner thread only; messageQueue().enqueueMessage() and requestExit() from
// any thread. Failure: none reported; exit is permanent.
//
// Observation (ipc/Statistics.h, ipc/Tracing.h, ipc/SlowDispatchWarning.h):
// enqueues and dispatches are counted, timed and traced while that is on;
// off, each costs one test.
#pragma once

#include <cstdint>

#include "ipc/Export.h"
#include "ipc/MessageQueue.h"

namespace Kestrel::ipc {

class IPC_EXPORT MessageLoop {
  public:
    MessageLoop();
    // No thread may be inside dispatchMessages().
    ~MessageLoop();
    MessageLoop(const MessageLoop&) = delete;
    MessageLoop& operator=(const MessageLoop&) = delete;

    // The loop's own queue; producers call enqueueMessage() on it.
    MessageQueue& messageQueue() { return mMessageQueue; }

    // Dispatches messages on the calling thread until the queue is exiting;
    // logs "message queue leaves us, exit now..." when it returns.
    // Thread: the loop's owner thread. Blocks: until requestExit().
    void dispatchMessages();

    // Ends dispatchMessages() after at most the message in hand. Thread: any.
    void requestExit();

  private:
    MessageQueue mMessageQueue;
    // Messages taken and dispatched; owner thread only. 64 bits: a busy loop
    // passes 2^31 messages within days.
    int64_t mDispatchedCount = 0;
};

}  // namespace Kestrel::ipc
