// Mutex, SharedMutex and their scoped locks: the standard mutexes with the
// annotations clang's thread-safety analysis needs (ipc/utils/ThreadSafety.h).
//
// Each wrapper holds exactly the standard object it wraps (same size, same
// alignment, same behaviour), so a member can change from std::mutex to Mutex
// without changing a class's layout. The analysis checks at compile time that
// every IPC_GUARDED_BY member is touched only with its lock held:
//
//   mutable Mutex mMutex;
//   std::deque<Item> mItems IPC_GUARDED_BY(mMutex);
//   std::condition_variable mChanged;
//
//   void push(Item item) IPC_EXCLUDES(mMutex) {
//       {
//           LockGuard lock(mMutex);
//           mItems.push_back(std::move(item));
//       }
//       mChanged.notify_one();
//   }
//   Item pop() IPC_EXCLUDES(mMutex) {
//       UniqueLock lock(mMutex);
//       lock.wait(mChanged, [this]() IPC_REQUIRES(mMutex) { return !mItems.empty(); });
//       ...
//   }
//
// A predicate or other lambda that touches guarded members while its caller
// holds the lock says so with IPC_REQUIRES on the lambda, as above: the
// analysis checks a lambda's body on its own.
//
// Thread: the same as the standard types. Failure: as the standard types
// (std::system_error from lock() on misuse); none of these allocate.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <shared_mutex>
#include <utility>

#include "ipc/Export.h"
#include "ipc/utils/ThreadSafety.h"

namespace Kestrel::ipc::utils {

// std::mutex, annotated. Prefer the scoped locks below to lock()/unlock().
class IPC_CAPABILITY("mutex") Mutex {
  public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() IPC_ACQUIRE() { mMutex.lock(); }
    void unlock() IPC_RELEASE() { mMutex.unlock(); }
    [[nodiscard]] bool try_lock() IPC_TRY_ACQUIRE(true) { return mMutex.try_lock(); }

    // Tells the analysis that the calling thread holds the lock; checks
    // nothing at run time. For code that took it by other means (std::lock).
    void assertHeld() const IPC_ASSERT_CAPABILITY(this) {}

    // The wrapped mutex, for standard algorithms that need it (std::lock,
    // std::unique_lock); the analysis does not follow what they do.
    std::mutex& native() IPC_RETURN_CAPABILITY(this) { return mMutex; }

  private:
    std::mutex mMutex;
};

// std::shared_mutex, annotated: one writer or many readers.
class IPC_CAPABILITY("shared mutex") SharedMutex {
  public:
    SharedMutex() = default;
    SharedMutex(const SharedMutex&) = delete;
    SharedMutex& operator=(const SharedMutex&) = delete;

    void lock() IPC_ACQUIRE() { mMutex.lock(); }
    void unlock() IPC_RELEASE() { mMutex.unlock(); }
    [[nodiscard]] bool try_lock() IPC_TRY_ACQUIRE(true) { return mMutex.try_lock(); }

    void lock_shared() IPC_ACQUIRE_SHARED() { mMutex.lock_shared(); }
    void unlock_shared() IPC_RELEASE_SHARED() { mMutex.unlock_shared(); }
    [[nodiscard]] bool try_lock_shared() IPC_TRY_ACQUIRE_SHARED(true) {
        return mMutex.try_lock_shared();
    }

    // As Mutex::assertHeld, for the exclusive and the shared mode.
    void assertHeld() const IPC_ASSERT_CAPABILITY(this) {}
    void assertReaderHeld() const IPC_ASSERT_SHARED_CAPABILITY(this) {}

    std::shared_mutex& native() IPC_RETURN_CAPABILITY(this) { return mMutex; }

  private:
    std::shared_mutex mMutex;
};

// Holds a Mutex, or a SharedMutex exclusively, from construction to the end
// of the scope (std::lock_guard).
template <typename MutexType>
class IPC_SCOPED_CAPABILITY LockGuard {
  public:
    explicit LockGuard(MutexType& mutex) IPC_ACQUIRE(mutex) : mMutex(mutex) { mMutex.lock(); }
    LockGuard(const LockGuard&) = delete;
    LockGuard& operator=(const LockGuard&) = delete;
    ~LockGuard() IPC_RELEASE() { mMutex.unlock(); }

  private:
    MutexType& mMutex;
};

// Holds a SharedMutex in shared mode to the end of the scope (std::shared_lock).
class IPC_SCOPED_CAPABILITY SharedLock {
  public:
    explicit SharedLock(SharedMutex& mutex) IPC_ACQUIRE_SHARED(mutex) : mMutex(mutex) {
        mMutex.lock_shared();
    }
    SharedLock(const SharedLock&) = delete;
    SharedLock& operator=(const SharedLock&) = delete;
    ~SharedLock() IPC_RELEASE() { mMutex.unlock_shared(); }

  private:
    SharedMutex& mMutex;
};

// Holds a Mutex like LockGuard, and can also release and retake it inside the
// scope and wait on a std::condition_variable (std::unique_lock<std::mutex>).
// Releases it at the end of the scope if it is held then.
class IPC_SCOPED_CAPABILITY UniqueLock {
  public:
    explicit UniqueLock(Mutex& mutex) IPC_ACQUIRE(mutex) : mLock(mutex.native()) {}
    UniqueLock(const UniqueLock&) = delete;
    UniqueLock& operator=(const UniqueLock&) = delete;
    ~UniqueLock() IPC_RELEASE() = default;

    // Release and retake inside the scope, e.g. to call out with no lock held.
    void unlock() IPC_RELEASE() { mLock.unlock(); }
    void lock() IPC_ACQUIRE() { mLock.lock(); }

    // Blocks until `ready()` returns true, releasing the mutex while it waits
    // on `condition`; returns holding it. `ready` runs with the mutex held.
    template <typename Predicate>
    void wait(std::condition_variable& condition, Predicate ready) {
        condition.wait(mLock, std::move(ready));
    }

    // As wait(), giving up after `duration`; returns what `ready()` last
    // returned.
    template <typename Rep, typename Period, typename Predicate>
    [[nodiscard]] bool waitFor(std::condition_variable& condition,
                               const std::chrono::duration<Rep, Period>& duration,
                               Predicate ready) {
        return condition.wait_for(mLock, duration, std::move(ready));
    }

    // As wait(), giving up at `deadline`; returns what `ready()` last returned.
    template <typename Clock, typename Duration, typename Predicate>
    [[nodiscard]] bool waitUntil(std::condition_variable& condition,
                                 const std::chrono::time_point<Clock, Duration>& deadline,
                                 Predicate ready) {
        return condition.wait_until(mLock, deadline, std::move(ready));
    }

    // The standard lock, for condition-variable calls not offered above. It
    // must hold the mutex again when the call returns, as every standard wait
    // guarantees.
    std::unique_lock<std::mutex>& native() { return mLock; }

  private:
    std::unique_lock<std::mutex> mLock;
};

// Same layout as the standard types they replace.
static_assert(sizeof(Mutex) == sizeof(std::mutex));
static_assert(sizeof(SharedMutex) == sizeof(std::shared_mutex));

}  // namespace Kestrel::ipc::utils
