// DefaultReactor: waits for descriptors to become ready and calls their event
// handlers, on one thread, until told to exit.
//
// Any thread registers EventHandlers, keyed by their descriptor. One thread
// runs loop(): it waits on a CountingSemaphore until the first registration
// (or an exit request), then cycles. Each cycle drops the handlers that have
// gone, waits once on a Poller of the live handlers' descriptors plus the
// reactor's own exit eventfd (always the last entry), and calls handleEvent()
// on every ready handler in ascending descriptor order, with no reactor lock
// held. The poll set is kept across cycles and rebuilt only when the
// registrations changed; a handler's weak reference is locked only when its
// descriptor is ready, so one dropped at any point before is never called.
// requestExit(), from any thread, signals the eventfd; the cycle that sees it
// still dispatches the other ready handlers, then loop() returns. A cycle
// whose wait failed or timed out returns too once exit was requested, so
// that waits that keep failing (a negative time-out) cannot hold the loop.
// Exit is permanent.
//
// Ownership: the reactor holds handlers only by std::weak_ptr; a handler whose
// last owner has gone is logged as expired and dropped at the next cycle. It
// owns the exit eventfd and closes it on destruction. Destroy the reactor only
// after the loop thread has returned.
//
// Thread: loop() on one thread at a time; register, remove and requestExit()
// from any thread, also from inside handleEvent(). A handler registered during
// a cycle takes part from the next one; one removed during a cycle may still
// be called in that cycle. Clang checks the locking against the annotations
// below.
//
// Failure: registration and removal return false (logged); a poll failure or
// time-out is logged and the next cycle begins; an error, hang-up or invalid
// descriptor flag is logged and the handler is not called (removing it is its
// owner's business). Broken invariants end the process: the eventfd cannot be
// made, read or written, the active handlers are out of order, or a ready
// descriptor has no handler.
//
// A peer that dies: its socket reports POLLHUP from then on, so the handler
// stays registered, is polled again and logged again on every cycle, and the
// loop never blocks. An owner that wants to hear of it installs a hang-up
// listener (setHangUpListener) and removes or drops the handler there. With
// a listener installed, a hang-up alone (POLLHUP, with or without POLLIN) is
// logged at info level, since the owner hears of it; an error or an invalid
// descriptor is logged at error level whether or not anyone listens.
//
// Compatibility: kept as existing callers and log readers rely on it. While
// no handler is registered and no exit was requested, loop() spins, logging
// "no available handlers, continue to wait..." on every turn: register a
// handler before, or soon after, starting it, and keep one registered. The
// failure flags read "|hand up|" for POLLHUP, and a removal of an unknown
// descriptor warns "does not registered before". requestExit() compares
// errno with -11, which never matches: every failed write of the eventfd is
// fatal. mCond is never used: it keeps the object layout.
//
// Observation (ipc/Statistics.h, ipc/Tracing.h, ipc/StateDump.h): cycles,
// handler runs and hang-ups are counted and traced while that is on; off, a
// cycle costs 16 instructions more.
#pragma once

#include <sysutils/FileDescriptor.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "ipc/Export.h"
#include "ipc/utils/Mutex.h"
#include "ipc/utils/ThreadSafety.h"

namespace Kestrel::ipc {

class CountingSemaphore;
class EventHandler;
class Poller;

class IPC_EXPORT DefaultReactor {
  public:
    // Told of a handler whose descriptor reported POLLERR, POLLHUP or POLLNVAL:
    // its descriptor, the revents and the handler itself.
    using HangUpListener =
            std::function<void(int fd, short revents, std::shared_ptr<EventHandler> handler)>;

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
    [[nodiscard]] virtual bool registerEventHandler(std::weak_ptr<EventHandler> handler)
            IPC_EXCLUDES(mMutex);

    // Removes the entry of `handler`'s fd(). False when it has expired or was
    // not registered. Thread: any.
    [[nodiscard]] virtual bool removeEventHandler(std::weak_ptr<EventHandler> handler)
            IPC_EXCLUDES(mMutex);

    // Runs the reactor on the calling thread until exit is requested.
    // `timeout` bounds each wait; 0 ms waits without limit.
    // Thread: one at a time. Blocks: until requestExit().
    virtual void loop(const std::chrono::milliseconds& timeout) IPC_EXCLUDES(mMutex, mListenerLock);

    // Makes loop() return after its current (or next) cycle, and releases its
    // start gate. Failing to signal the eventfd is fatal: "request Reactor to
    // exit failed (%s)". Thread: any.
    virtual void requestExit();

    // Removes the entry of descriptor `fd`. False, with the warning
    // "handler(key: %d) does not registered before", when there is none.
    // Thread: any.
    [[nodiscard]] bool removeEventHandlerByFd(int fd) IPC_EXCLUDES(mMutex);

    // Installs `listener` (an empty one uninstalls), replacing the one before.
    // From then on, each time a handler's descriptor reports an error, hang-up
    // or invalid-descriptor flag, the loop logs "fd(%d): output event failed:
    // %s" as always, then calls the listener on its own thread with no reactor
    // lock held. There the owner may remove the handler, drop its last
    // reference (it is destroyed when the cycle ends), or requestExit().
    // A listener that does none of these is called again on every cycle, as
    // the flag stays; one that removes the only handler leaves the loop
    // spinning for handlers unless it also requests exit.
    // Without a listener nothing is called: the flag is only logged.
    // Thread: any, before or while loop() runs, also from inside the listener;
    // a call that races with a dispatch takes effect at that dispatch or the
    // next.
    void setHangUpListener(HangUpListener listener) IPC_EXCLUDES(mListenerLock);

    // The two halves of a cycle's dispatch, called by loop() on its thread.
    //
    // True when `event` (the exit eventfd's poll result) has POLLIN; the
    // eventfd is then read back to 0. A failed read is fatal: "handle exit
    // event failed (%s)".
    bool handleExitEvent(const std::pair<int, short>& event);
    // Calls, for each ready (fd, revents) of `events`, the handler of that
    // descriptor found by binary search in `ascendingActiveHandlers`, when
    // revents hold every event its type() asks for; for error flags, the
    // hang-up listener instead, if one is installed. A list out of ascending
    // order, or a ready descriptor without a handler, is fatal.
    void handlePollEvent(const std::vector<std::pair<int, short>>& events,
                         const std::vector<std::shared_ptr<EventHandler>>& ascendingActiveHandlers)
            IPC_EXCLUDES(mMutex, mListenerLock);

  private:
    friend class StateDump;  // copies the registered descriptors under mMutex

    // A registered handler as the loop polls it, kept across cycles until the
    // registrations change: its descriptor, the poll events of its type() and
    // the weak reference (locked only once its descriptor is ready).
    struct Watched {
        int fd;
        short events;
        std::weak_ptr<EventHandler> handler;
    };
    using WatchedHandlers = std::vector<Watched>;

    // The loop's steps, on its thread. refreshWatched() copies the map into
    // `watched` (ascending) when it changed since `seenGeneration` or `fresh`
    // is false, and says whether it did. dropExpired() logs and removes the
    // entries whose handler has gone, and says whether there were any.
    // rebuildPoller() registers `watched`, then the exit eventfd.
    // collectReady() locks the handlers of the ready pairs of `events` into
    // `readyHandlers` (ascending) and removes the pairs of handlers that have
    // gone since; true when there were such.
    bool refreshWatched(WatchedHandlers& watched, uint64_t& seenGeneration, bool& fresh)
            IPC_EXCLUDES(mMutex);
    bool dropExpired(WatchedHandlers& watched) IPC_EXCLUDES(mMutex);
    void rebuildPoller(Poller& poller, const WatchedHandlers& watched);
    bool collectReady(const WatchedHandlers& watched, std::vector<std::pair<int, short>>& events,
                      std::vector<std::shared_ptr<EventHandler>>& readyHandlers);

    // Erases the entry of `fd`. With `onlyIfExpired` the entry is kept when
    // its handler is alive again: the number may have been reused by a
    // handler registered after the entry was found expired.
    bool eraseEntryLocked(int fd, bool onlyIfExpired) IPC_REQUIRES(mMutex);
    // Calls `listener` (the hang-up listener the cycle copied; null: none)
    // for the handler of `fd`; no lock is held during the call.
    void notifyHangUp(int fd, short revents,
                      const std::vector<std::shared_ptr<EventHandler>>& ascendingActiveHandlers,
                      const HangUpListener* listener) IPC_EXCLUDES(mMutex, mListenerLock);

    utils::Mutex mMutex;
    [[maybe_unused]] std::condition_variable mCond;
    std::unique_ptr<CountingSemaphore> mSemaphore;  // start gate of loop()
    std::map<int, std::weak_ptr<EventHandler>> mEventHandlers IPC_GUARDED_BY(mMutex);
    uint64_t mGeneration IPC_GUARDED_BY(mMutex) = 0;  // counts changes of mEventHandlers
    std::atomic<bool> mExitRequested{false};          // set once by requestExit()
    Kestrel::utils::sys::FileDescriptor mExitEventFd;

    // Taken alone, never with mMutex: the loop copies the listener under it
    // and calls the copy after releasing it.
    utils::Mutex mListenerLock;
    std::shared_ptr<const HangUpListener> mHangUpListener IPC_GUARDED_BY(mListenerLock);
};

}  // namespace Kestrel::ipc
