// CountingSemaphore: the blocking primitive of the message containers and of
// the reactor's start gate.
//
// A mutex, a condition variable and a count. Producers add units with
// release(); a consumer takes one with acquire(), which blocks while none is
// available. A waiter never gives up: it waits in slices of 3000 ms on the
// steady clock and logs "[acquire] timeout! key:0" at the end of every slice
// that found no unit, then waits again. Shutdown is the owner's business: an
// owner sets its own exit flag and releases one unit per blocked waiter.
//
// Ownership: owners hold it by std::unique_ptr; it is neither copyable nor
// movable. release() wakes the waiters after it has unlocked the mutex, and
// only when some thread waits. A waiter woken by a release may destroy the
// semaphore's owner at once (a loop thread that ends with its queue): the
// destructor waits until every release() still notifying has returned.
// Thread: any number of threads may acquire and release at once; the count is
// guarded by the mutex, and the debug lines are written with the mutex held.
// An owner may keep its own entries under the same mutex (mutex() and
// the *With operations); clang checks the locking against the
// annotations below.
// Failure: none; acquire() returns only with a unit taken.
//
// Compatibility: kept as existing callers and log readers rely on it. The
// number after "key:" in every line is the current count, not the key given
// to the constructor. The key is stored and never used, and mReserved is
// never read: both keep the object layout.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>

#include "ipc/Export.h"
#include "ipc/utils/Mutex.h"
#include "ipc/utils/ThreadSafety.h"

namespace Kestrel::ipc {

class IPC_EXPORT CountingSemaphore {
  public:
    // `key` identifies the owner and is only stored; the count starts at 0.
    explicit CountingSemaphore(int key);
    // Must not run while a thread is inside acquire(), or before a release()
    // has begun; it waits for releases that are still notifying.
    ~CountingSemaphore();
    CountingSemaphore(const CountingSemaphore&) = delete;
    CountingSemaphore& operator=(const CountingSemaphore&) = delete;

    // Takes one unit, blocking until the count is positive.
    // Thread: any. Blocks: for as long as nobody releases (logging once per
    // 3000 ms slice).
    void acquire() IPC_EXCLUDES(mMutex);

    // Adds `n` units (a negative `n` lowers the count) and wakes every waiter
    // (after unlocking; no notification at all when nobody waits).
    // Thread: any. Never blocks beyond the mutex.
    void release(int n) IPC_EXCLUDES(mMutex);

    // acquire() and release() that also run `underLock` (when not empty)
    // under the same hold of the mutex: after taking the unit, or before
    // adding the units. An owner whose entries this mutex guards as well
    // stores and takes them without a second lock: it annotates them
    // IPC_GUARDED_BY(semaphore->mutex()) and `underLock` with
    // IPC_REQUIRES(semaphore->mutex()). `underLock` must not call back into
    // this semaphore.
    void acquireWith(const std::function<void()>& underLock) IPC_EXCLUDES(mMutex);
    void releaseWith(int n, const std::function<void()>& underLock) IPC_EXCLUDES(mMutex);

    // acquireWith() taking every available unit at once, at least one: a
    // consumer takes all the entries they count in one lock. As there, an
    // empty `underLock` runs nothing: the units are taken all the same and
    // nothing is thrown.
    void acquireAllWith(const std::function<void()>& underLock) IPC_EXCLUDES(mMutex);

    // The mutex that guards the count, for the lock annotations of an owner
    // that keeps its entries under it. Lock it only through the *With
    // operations above.
    utils::Mutex& mutex() IPC_RETURN_CAPABILITY(mMutex) { return mMutex; }

  private:
    // Blocks, in slices, until a unit is available.
    void waitForUnit(utils::UniqueLock& lock) IPC_REQUIRES(mMutex);

    utils::Mutex mMutex;
    std::condition_variable mCond;
    [[maybe_unused]] int64_t mReserved = 0;
    std::chrono::milliseconds mTimeout{3000};  // length of one wait slice
    int32_t mCount IPC_GUARDED_BY(mMutex) = 0;
    int32_t mWaiters IPC_GUARDED_BY(mMutex) = 0;  // threads blocked in acquire()
    [[maybe_unused]] int32_t mKey;                // the owner's identifier
    std::atomic<int32_t> mNotifying{0};           // releases past the unlock, not yet returned
};

}  // namespace Kestrel::ipc
