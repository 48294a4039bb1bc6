// CBRegistry: one-shot reply callbacks keyed by message id, and a list of
// messages for a fixed number of worker threads.
//
// A thread that sends a request registers a callback under the request's id;
// when the reply arrives, unRegisterCB() removes the callback and calls it once
// with the reply's status: the first byte of its payload data. The callback
// runs on the unregistering thread with no lock held, so it may register
// again, even for its own id. Callbacks still registered when the registry is
// destroyed are destroyed uncalled.
//
// Beside the map the registry owns a CBList: a first-in first-out list of
// messages with a counting semaphore. Each of the `waiterCount` workers loops
// on waitCB() and, after each true result, takes a message with
// extractCBList() (typically passing it on to unRegisterCB()); a false
// waitCB() ends the worker. requestExit() wakes exactly the declared number
// of workers; surplus ones stay blocked.
//
// A reply without any payload data byte carries no status. unRegisterCB()
// rejects it: it logs "CB status is missing, ERROR with msgID=%u", destroys
// the message and leaves the callback registered and uncalled, so that a
// well-formed reply for that id can still complete it. No status is invented.
//
// Ownership: the registry owns its callbacks (copies) and the CBList, which
// owns the messages it holds. unRegisterCB() consumes the reply: its
// descriptors are closed before the callback runs (the callback sees only the
// status byte), also when no callback waits for it. Messages the CBList still
// holds at destruction have their descriptors closed too. What extract()
// hands out is the caller's, descriptors included: the message it replaces in
// `out` is destroyed with its descriptors left open, so a caller that took
// them with payload() may reuse its pointer.
// Thread: any thread may register and unregister; the map's mutex and the
// list's mutex are never held together, and neither is held while the
// semaphore is acquired or released. Clang checks the locking against the
// annotations below.
// Failure: duplicate or unknown ids are logged at error level and otherwise
// ignored; an empty callback throws std::bad_function_call out of
// unRegisterCB(), after its entry has been removed and the lock released.
// Nothing aborts.
//
// Compatibility: kept as existing callers rely on it. notifyCB() and
// CBList::notify() notify a condition variable that nothing waits on: they
// wake nobody (updates and requestExit() wake the workers).
//
// Observation (ipc/Statistics.h, ipc/Tracing.h, ipc/StateDump.h):
// registrations and reply callbacks are counted and traced while that is on;
// off, each costs one test.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <unordered_map>

#include "ipc/Export.h"
#include "ipc/utils/Mutex.h"
#include "ipc/utils/ThreadSafety.h"

namespace Kestrel::ipc {

class CountingSemaphore;
class Message;

class IPC_EXPORT CBRegistry {
  public:
    // The registry's message list for its workers: one semaphore unit per
    // message, plus the registry's waiter count at exit. Accepts messages
    // also after requestExit().
    class IPC_EXPORT CBList {
      public:
        explicit CBList(CBRegistry& registry);
        // No thread may be inside wait().
        virtual ~CBList();
        CBList(const CBList&) = delete;
        CBList& operator=(const CBList&) = delete;

        // Appends `message` and adds one unit. Thread: any.
        void update(std::unique_ptr<Message> message) IPC_EXCLUDES(mMutex);
        // Moves the oldest message into `out` (destroying what `out` held,
        // its descriptors left open: they are the caller's). False, `out`
        // untouched, when the list is empty. Thread: any.
        [[nodiscard]] bool extract(std::unique_ptr<Message>& out) IPC_EXCLUDES(mMutex);
        bool isEmpty() IPC_EXCLUDES(mMutex);
        // Marks the list as exiting and adds the registry's waiter count.
        void requestExit();
        // Wakes nobody (see Compatibility).
        void notify();
        // Takes one unit; false once exiting. Blocks until a unit is there.
        [[nodiscard]] bool wait();

      private:
        CBRegistry& mRegistry;
        std::condition_variable mCond;  // notified by notify()
        utils::Mutex mMutex;
        std::list<std::unique_ptr<Message>> mMessages IPC_GUARDED_BY(mMutex);  // oldest first
        std::unique_ptr<CountingSemaphore> mSemaphore;
        std::atomic<bool> mExiting{false};  // set once by requestExit()
    };

    // `waiterCount`: the number of workers that will block in waitCB(); also
    // the list semaphore's key (truncated to 32 bits).
    explicit CBRegistry(unsigned long waiterCount);
    // Destroys the callbacks still registered (uncalled), then the list and
    // its messages. No thread may be inside waitCB().
    virtual ~CBRegistry();
    CBRegistry(const CBRegistry&) = delete;
    CBRegistry& operator=(const CBRegistry&) = delete;

    // Stores a copy of `callback` under `message.id()`. If the id already has
    // one, logs "CB has registered, ERROR with msgID=%u" and keeps the first.
    // Thread: any, including from inside a callback.
    void registerCB(const Message& message, const std::function<void(uint8_t)>& callback)
            IPC_EXCLUDES(mMutex);

    // Removes the callback of `message->id()` and calls it, outside the lock,
    // with the first payload data byte. An unknown id logs "CB has not
    // registered, ERROR with msgID=%u"; a message without data bytes is
    // rejected as described above. The message is destroyed on return.
    // Thread: any.
    void unRegisterCB(std::unique_ptr<Message> message) IPC_EXCLUDES(mMutex);

    // Forwarders to the CBList.
    void updateCBList(std::unique_ptr<Message> message);
    [[nodiscard]] bool extractCBList(std::unique_ptr<Message>& out);
    bool isEmptyCBList();
    void requestExit();
    void notifyCB();
    [[nodiscard]] bool waitCB();

  private:
    friend class StateDump;  // copies the pending ids under mMutex

    utils::Mutex mMutex;
    std::unordered_map<uint32_t, std::function<void(uint8_t)>> mCallbacks IPC_GUARDED_BY(mMutex);
    std::unique_ptr<CBList> mCBList;
    unsigned long mWaiterCount;
};

}  // namespace Kestrel::ipc
