// MessageTable: messages parked by message id for a fixed number of waiters.
//
// Producers store messages with update(); each of the `waiterCount` consumer
// threads loops on wait() and, after each true result, takes one id's whole
// list of messages (in arrival order) with extract(); a false wait() ends the
// consumer. The semaphore counts stored messages, not ids, so several messages
// of one id are taken by a single extract() and the later wait()s that their
// units allow find nothing: a false extract() after a true wait() is normal
// and the consumer simply waits again. requestExit() wakes exactly the
// declared number of waiters; surplus waiters stay blocked.
//
// Ownership: the table owns every message it holds; messages stored after exit
// are kept until the table is destroyed. Messages still stored at destruction
// have their descriptors closed first. What extract() hands out is the
// caller's, descriptors included: the messages it replaces in `out` are
// destroyed with their descriptors left open, so a caller that took them with
// payload() may reuse its list.
// Thread: any number of producers and the declared consumers; the table's
// mutex is never held while the semaphore is acquired or released. Clang
// checks the locking against the annotations below.
// Failure: nothing fails; extract() on an empty table returns false.
//
// Compatibility: kept as existing callers rely on it. notify() notifies a
// condition variable that nothing waits on: it wakes nobody (update() and
// requestExit() wake the waiters).
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <memory>
#include <unordered_map>

#include "ipc/Export.h"
#include "ipc/utils/Mutex.h"
#include "ipc/utils/ThreadSafety.h"

namespace Kestrel::ipc {

class CountingSemaphore;
class Message;

class IPC_EXPORT MessageTable {
  public:
    // `waiterCount`: the number of threads that will block in wait(); it is
    // also the semaphore's key (truncated to 32 bits).
    explicit MessageTable(unsigned long waiterCount);
    // Destroys every stored message. No thread may be inside wait().
    ~MessageTable();
    MessageTable(const MessageTable&) = delete;
    MessageTable& operator=(const MessageTable&) = delete;

    // Appends `message` to its id's list and adds one unit. Accepted also
    // after requestExit(). Thread: any.
    void update(std::unique_ptr<Message> message) IPC_EXCLUDES(mMutex);

    // Takes one unit. True: call extract() now (it may find nothing). False:
    // the table is exiting and the consumer should end.
    // Thread: a declared consumer. Blocks: until a unit is available.
    [[nodiscard]] bool wait();

    // Moves one id's messages, in arrival order, into `out` (whatever `out`
    // held is destroyed first, its descriptors left open: they are the
    // caller's). No order between ids is promised. False, with `out`
    // untouched, when the table is empty. Thread: any.
    [[nodiscard]] bool extract(std::list<std::unique_ptr<Message>>& out) IPC_EXCLUDES(mMutex);

    // True when no id is stored. Thread: any.
    bool isEmpty() IPC_EXCLUDES(mMutex);

    // Wakes nobody (see Compatibility).
    void notify();

    // Marks the table as exiting (permanently) and adds one unit per declared
    // waiter, each of which then returns false from wait(). Thread: any.
    void requestExit();

  private:
    // id -> its messages, oldest first; never holds an empty list.
    std::unordered_map<uint32_t, std::list<std::unique_ptr<Message>>> mTable IPC_GUARDED_BY(mMutex);
    std::condition_variable mCond;  // notified by notify()
    utils::Mutex mMutex;
    std::unique_ptr<CountingSemaphore> mSemaphore;  // one unit per message, waiterCount at exit
    unsigned long mWaiterCount;
    std::atomic<bool> mExiting{false};  // set once by requestExit()
};

}  // namespace Kestrel::ipc
