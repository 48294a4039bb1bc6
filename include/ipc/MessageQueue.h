// MessageQueue: the unbounded first-in first-out queue of one MessageLoop.
//
// Producers append messages with enqueueMessage(); one consumer takes them in
// arrival order with nextMessage(), blocking on a CountingSemaphore while the
// queue is empty (one unit per message). requestExit() marks the queue as
// exiting for good and adds one unit, so that a blocked consumer wakes, sees
// the flag and gets an empty result.
//
// Ownership: the queue owns every message it holds. A message it destroys
// without handing it out (one enqueued after exit, one still queued when the
// queue is destroyed) has its descriptors closed first: nobody else can
// reach them any more.
// Thread: any number of producers (enqueueMessage, requestExit) and exactly
// one consumer (nextMessage). The list is guarded by the semaphore's own
// mutex, so that storing a message and its unit costs one lock; the consumer
// takes every queued message with their units in one lock and hands them out
// from its own list, oldest first, without locking again. clang checks the
// locking against the annotations below.
// Failure: nothing is reported to callers; an enqueue after exit drops the
// message with a warning, and nextMessage() after exit returns an empty
// message.
//
// Compatibility: kept as existing callers rely on it. The time-outs of
// enqueueMessage() and nextMessage() are accepted and ignored (the latter
// only picks a warning text), NextMessage::timedOut is never set, and
// mReserved is never used: it keeps the object layout.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>

#include "ipc/CountingSemaphore.h"
#include "ipc/Export.h"
#include "ipc/utils/ThreadSafety.h"

namespace Kestrel::ipc {

class Message;

class IPC_EXPORT MessageQueue {
  public:
    // What nextMessage() gives: a message, or none once the queue is exiting.
    struct NextMessage {
        bool timedOut = false;
        std::unique_ptr<Message> message;
    };

    MessageQueue();
    // No thread may be inside any operation. Queued messages are destroyed
    // without being handled, their descriptors closed.
    virtual ~MessageQueue();
    MessageQueue(const MessageQueue&) = delete;
    MessageQueue& operator=(const MessageQueue&) = delete;

    // Appends `message`; the queue has no bound, so an enqueue never waits.
    // After requestExit() the message is
    // destroyed, its descriptors closed, with "message queue is exiting, skip
    // enqueueMessage()".
    // Thread: any.
    void enqueueMessage(std::unique_ptr<Message> message, std::chrono::milliseconds timeout);

    // Removes and returns the oldest message, blocking while the queue is
    // empty; an empty `message` once the queue is exiting. The warning logged
    // when exit is seen after waking is "cannot get the next message now" for
    // a `timeout` below 1 ms, "skip nextMessage()" otherwise.
    // Thread: the queue's one consumer. Blocks: until a message or exit.
    NextMessage nextMessage(std::chrono::milliseconds timeout);

    // Marks the queue as exiting (permanently) and wakes one blocked consumer.
    // Thread: any.
    void requestExit();

  private:
    friend class MessageLoop;

    // True while the consumer holds messages it has taken and not handed
    // out. Thread: the consumer.
    bool hasTakenMessages() const { return !mTaken->empty(); }

    // Stored with the unit that counts it, under the semaphore's mutex;
    // oldest first.
    std::deque<std::unique_ptr<Message>> mMessages IPC_GUARDED_BY(mSemaphore->mutex());
    // The consumer's own: messages taken from mMessages with their units and
    // not handed out yet, oldest first; still queued as far as exit and
    // destruction are concerned. On cache lines of its own, away from the
    // mutex and the list that producers write on every enqueue, and held in
    // the place of the condition variable earlier versions had here, so that
    // the object keeps its size and layout.
    struct alignas(64) TakenMessages : std::deque<std::unique_ptr<Message>> {};
    std::unique_ptr<TakenMessages> mTaken;
    [[maybe_unused]] unsigned char mReserved[sizeof(std::condition_variable) - sizeof(void*)] = {};
    std::unique_ptr<CountingSemaphore> mSemaphore;  // one unit per message, one at exit
    std::atomic<bool> mExiting{false};              // set once by requestExit()
};

}  // namespace Kestrel::ipc
