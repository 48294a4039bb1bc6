#include <ipc/CountingSemaphore.h>
#include <ipc/utils/Log.h>

#include <thread>

namespace Kestrel::ipc {

namespace {
constexpr utils::LogSite kLogSite{"CountingSemaphore", "ipc/CountingSemaphore",
                                  utils::kLogModuleSync};
}  // namespace

CountingSemaphore::CountingSemaphore(int key) : mKey(key) {}

CountingSemaphore::~CountingSemaphore() {
    // A release that woke the thread now destroying this may still be inside
    // notify: let it return before the condition variable goes.
    while (mNotifying.load(std::memory_order_acquire) != 0) {
        std::this_thread::yield();
    }
}

void CountingSemaphore::acquire() { acquireWith(nullptr); }

void CountingSemaphore::acquireWith(const std::function<void()>& underLock) {
    utils::UniqueLock lock(mMutex);
    waitForUnit(lock);
    --mCount;
    if (underLock) {
        underLock();
    }
}

void CountingSemaphore::acquireAllWith(const std::function<void()>& underLock) {
    utils::UniqueLock lock(mMutex);
    waitForUnit(lock);
    mCount = 0;
    if (underLock) {
        underLock();
    }
}

void CountingSemaphore::waitForUnit(utils::UniqueLock& lock) {
    const auto available = [this]() IPC_REQUIRES(mMutex) { return mCount > 0; };
    if (available()) {
        return;
    }
    ++mWaiters;
    while (!lock.waitUntil(mCond, std::chrono::steady_clock::now() + mTimeout, available)) {
        IPC_LOGD("[%s] timeout! key:%d", "acquire", mCount);
    }
    --mWaiters;
    IPC_LOGD("[%s] finishing waiting! key:%d", "acquire", mCount);
}

void CountingSemaphore::release(int n) { releaseWith(n, nullptr); }

void CountingSemaphore::releaseWith(int n, const std::function<void()>& underLock) {
    int32_t waiters = 0;
    {
        utils::LockGuard lock(mMutex);
        if (underLock) {
            underLock();
        }
        IPC_LOGD("[%s] before releasing! key:%d", "release", mCount);
        mCount += n;
        IPC_LOGD("[%s] after releasing! key:%d", "release", mCount);
        waiters = mWaiters;
        if (waiters != 0) {
            mNotifying.fetch_add(1, std::memory_order_relaxed);
        }
    }
    // Woken after the unlock, so that a waiter does not wake only to block on
    // the mutex; and only when one waits. A waiter counted here is already
    // inside the wait (it counts itself and waits under the same hold of the
    // mutex), so it cannot miss this notification. Every waiter is woken; with
    // a single one, the cheaper notify_one() does exactly that.
    if (waiters == 0) {
        return;
    }
    if (waiters == 1) {
        mCond.notify_one();
    } else {
        mCond.notify_all();
    }
    mNotifying.fetch_sub(1, std::memory_order_release);
}

}  // namespace Kestrel::ipc
