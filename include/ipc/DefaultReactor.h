// DefaultReactor: waits for descriptors to become ready and calls their event
// handlers, on one thread, until told to exit.
//
// Any thread registers EventHandlers, keyed by their descriptor. One thread
// runs loop(): it waits on a CountingSemaphore until the first registration
// (or an exit request), then cycles. Each cycle rebuilds a Poller from the
// handlers still alive plus the reactor's own exit eventfd (always the last
// entry), waits once, and calls handleEvent() on every ready handler in
// ascending descriptor order, with no reactor lock held. requestExit(), from
// any thread, signals the eventfd; the cycle that sees it still dispatches
// the other ready handlers, then loop() returns. Exit is permanent.
//
// Ownership: the reactor holds handlers only by std::weak_ptr; a handler whose
// last owner has gone is logged as expired and dropped at the next cycle. It
// owns the exit eventfd and closes it on destruction. Destroy the reactor only
// after the loop thread has returned.
//
// Thread: loop() on one thread at a time; register, remove and requestExit()
// from any thread, also from inside handleEvent(). A handler registered during
// a cycle takes part from the next one; one removed during a cycle may still
// be called in that cycle. While no handler is registered and no exit was
// requested, loop() spins (it logs "no available handlers, continue to
// wait..." on every turn): register a handler before, or soon after, starting
// it, and keep one registered.
//
// Failure: registration and removal return false (logged); a poll failure or
// time-out is logged and the next cycle begins; an error, hang-up or invalid
// descriptor flag is logged and the handler is not called (removing it is its
// owner's business). Broken invariants end the process: the eventfd cannot be
// made, read or written, the active handlers are out of order, or a ready
// descriptor has no handler.
#pragma once

#include <sysutils/FileDescriptor.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "ipc/Export.h"

namespace Kestrel::ipc {

class CountingSemaphore;
class EventHandler;

class IPC_EXPORT DefaultReactor {
  public:
    // Creates the exit eventfd (non-blocking, close-on-exec); failing to is
    // fatal: "create event notification failed (%s)".
    DefaultReactor();
    // Closes the exit eventfd. Does not stop a running loop: call it after the
    // loop thread has returned.
    virtual ~DefaultReactor();
    DefaultReactor(const DefaultReactor&) = delete;
    DefaultReactor& operator=(const DefaultReactor&) = delete;

    // Adds `handler` under its fd(). False when it has expired ("event handler
    // is expired") or the descriptor already has a handler ("handler(key: %d)
    // already existed"; the first one stays). Either way, except for an
    // expired handler, releases the start gate of loop(). Thread: any.
    [[nodiscard]] virtual bool registerEventHandler(std::weak_ptr<EventHandler> handler);

    // Removes the entry of `handler`'s fd(). False when it has expired or was
    // not registered. Thread: any.
    [[nodiscard]] virtual bool removeEventHandler(std::weak_ptr<EventHandler> handler);

    // Runs the reactor on the calling thread until exit is requested.
    // `timeout` bounds each wait; 0 ms waits without limit.
    // Thread: one at a time. Blocks: until requestExit().
    virtual void loop(const std::chrono::milliseconds& timeout);

    // Makes loop() return after its current (or next) cycle, and releases its
    // start gate. Failing to signal the eventfd is fatal: "request Reactor to
    // exit failed (%s)". Thread: any.
    virtual void requestExit();

    // Removes the entry of descriptor `fd`. False, with the warning
    // "handler(key: %d) does not registered before", when there is none.
    // Thread: any.
    [[nodiscard]] bool removeEventHandlerByFd(int fd);

    // The two halves of a cycle's dispatch, called by loop() on its thread.
    //
    // True when `event` (the exit eventfd's poll result) has POLLIN; the
    // eventfd is then read back to 0. A failed read is fatal: "handle exit
    // event failed (%s)".
    bool handleExitEvent(const std::pair<int, short>& event);
    // Calls, for each ready (fd, revents) of `events`, the handler of that
    // descriptor found by binary search in `ascendingActiveHandlers`, when
    // revents hold every event its type() asks for. A list out of ascending
    // order, or a ready descriptor without a handler, is fatal.
    void handlePollEvent(const std::vector<std::pair<int, short>>& events,
                         const std::vector<std::shared_ptr<EventHandler>>& ascendingActiveHandlers);

  private:
    // Erases the entry of `fd`; caller holds mMutex. With `onlyIfExpired` the
    // entry is kept when its handler is alive again: the number may have been
    // reused by a handler registered after the entry was found expired.
    bool eraseEntryLocked(int fd, bool onlyIfExpired);

    std::mutex mMutex;
    [[maybe_unused]] std::condition_variable mCond;  // never used; part of the object layout
    std::unique_ptr<CountingSemaphore> mSemaphore;   // start gate of loop()
    std::map<int, std::weak_ptr<EventHandler>> mEventHandlers;  // guarded by mMutex
    std::atomic<bool> mExitRequested{false};                    // set once by requestExit()
    Kestrel::utils::sys::FileDescriptor mExitEventFd;
};

}  // namespace Kestrel::ipc
