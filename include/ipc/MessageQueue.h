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
// reach them any more. Thread: any number of producers
// (enqueueMessage, requestExit) and exactly one consumer (nextMessage). The
// list is guarded by the semaphore's own mutex, so that storing or taking a
// message and its unit costs one lock. Failure: nothing is
// reported to callers; an enqueue after exit drops the message with a warning,
// and nextMessage() after exit returns an empty message.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>

#include "ipc/Export.h"

namespace Kestrel::ipc {

class CountingSemaphore;
class Message;

class IPC_EXPORT MessageQueue {
  public:
    // What nextMessage() gives: a message, or none once the queue is exiting.
    // This queue never reports `timedOut`; callers still handle it.
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

    // Appends `message`. `timeout` is ignored on purpose: the queue has no
    // bound, so an enqueue never waits. After requestExit() the message is
    // destroyed, its descriptors closed, with "message queue is exiting, skip
    // enqueueMessage()".
    // Thread: any.
    void enqueueMessage(std::unique_ptr<Message> message, std::chrono::milliseconds timeout);

    // Removes and returns the oldest message, blocking while the queue is
    // empty; an empty `message` once the queue is exiting. `timeout` does not
    // bound the wait; it only picks the warning logged when exit is seen after
    // waking ("cannot get the next message now" below 1 ms, "skip
    // nextMessage()" otherwise).
    // Thread: the queue's one consumer. Blocks: until a message or exit.
    NextMessage nextMessage(std::chrono::milliseconds timeout);

    // Marks the queue as exiting (permanently) and wakes one blocked consumer.
    // Thread: any.
    void requestExit();

  private:
    // Guarded by the semaphore's mutex (stored and taken with the unit that
    // counts it: one lock per enqueue and per take); oldest first.
    std::deque<std::unique_ptr<Message>> mMessages;
    [[maybe_unused]] std::condition_variable mCond;  // never used; part of the object layout
    std::unique_ptr<CountingSemaphore> mSemaphore;   // one unit per message, one at exit
    std::atomic<bool> mExiting{false};               // set once by requestExit()
};

}  // namespace Kestrel::ipc
