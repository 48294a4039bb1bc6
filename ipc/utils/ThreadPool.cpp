#include <ipc/utils/Log.h>
#include <ipc/utils/Runnable.h>
#include <ipc/utils/ThreadPool.h>

#include <chrono>
#include <exception>
#include <functional>
#include <string>

namespace Kestrel::ipc::utils {

namespace {
constexpr LogSite kLogSite{"ThreadPool", "ipc/utils/ThreadPool", kLogModuleCore};

constexpr std::chrono::seconds kWaitSlice{10};

const char* yesNo(bool value) { return value ? "yes" : "no"; }

// A task's exception has nobody to reach on a worker: end the process saying
// so, rather than through a bare std::terminate.
void runTask(const std::function<void()>& task) {
    try {
        task();
    } catch (const std::exception& error) {
        IPC_FATAL("thread pool task threw an exception: %s", error.what());
    } catch (...) {
        IPC_FATAL("thread pool task threw an exception: %s", "(not a std::exception)");
    }
}
}  // namespace

// One worker: takes tasks from the pool's queue until the pool exits.
class ThreadPool::Worker : public Runnable {
  public:
    Worker(size_t index, ThreadPool* pool) : mIndex(index), mPool(pool) {}

    void run() override;

  private:
    const size_t mIndex;      // 0 .. n-1, also in the thread's name
    ThreadPool* const mPool;  // outlives the worker: the pool joins it
};

void ThreadPool::Worker::run() {
    Thread::setName("ThreadPool-" + std::to_string(mIndex));
    ThreadPool& pool = *mPool;
    for (;;) {
        std::function<void()> task;
        {
            UniqueLock lock(pool.mTasksLock);
            const auto ready = [&pool]() IPC_REQUIRES(pool.mTasksLock) {
                return pool.mIsExiting.load(std::memory_order_acquire) || !pool.mTasks.empty();
            };
            while (!lock.waitUntil(pool.mTasksCond, std::chrono::steady_clock::now() + kWaitSlice,
                                   ready)) {
                IPC_LOGW("timed out, queue size(%zu) isExiting(%s)", pool.mTasks.size(),
                         yesNo(pool.mIsExiting.load(std::memory_order_acquire)));
            }
            IPC_LOGI("wake up since queue size(%zu) or isExiting(%s)", pool.mTasks.size(),
                     yesNo(pool.mIsExiting.load(std::memory_order_acquire)));
            if (!pool.mTasks.empty()) {
                task = std::move(pool.mTasks.front());
                pool.mTasks.pop_front();
            }
        }
        if (task) {
            runTask(task);
        } else {
            IPC_LOGW("thread %zu has no callable method, do nothing", mIndex);
        }
        if (pool.mIsExiting.load(std::memory_order_acquire)) {
            IPC_LOGD("[%s] thread %zu exit now", __func__, mIndex);
            return;
        }
    }
}

ThreadPool::ExitListener::~ExitListener() = default;

ThreadPool::ThreadPool(unsigned long n) {
    // Reserved so that no Thread is moved once constructed.
    mWorkers.reserve(n);
    for (unsigned long i = 0; i < n; ++i) {
        mWorkers.emplace_back(new Worker(i, this), true);
    }
    try {
        dispatch();
    } catch (...) {
        // The workers already started use the members that are about to go.
        wakeAllForExit();
        for (Thread& worker : mWorkers) {
            worker.wait();
        }
        throw;
    }
}

ThreadPool::~ThreadPool() {
    if (!mIsExiting.load(std::memory_order_acquire)) {
        wakeAllForExit();
    }
    for (Thread& worker : mWorkers) {
        worker.wait();
    }
    if (const std::shared_ptr<ExitListener> listener = mExitListener.lock()) {
        listener->onThreadPoolExit();
    }
}

void ThreadPool::dispatch() {
    if (mWorkers.empty()) {
        IPC_LOGW("do nothing since thread number is 0");
        return;
    }
    LockGuard lock(mWorkersLock);
    for (Thread& worker : mWorkers) {
        worker.start();
    }
}

void ThreadPool::requestExit() { wakeAllForExit(); }

void ThreadPool::setExitListener(std::weak_ptr<ExitListener> listener) {
    mExitListener = std::move(listener);
}

void ThreadPool::wakeAllForExit() {
    {
        // Set under the lock the workers test it under, so that a worker
        // between its test and its wait cannot miss the wake-up.
        LockGuard lock(mTasksLock);
        mIsExiting.store(true, std::memory_order_release);
    }
    mTasksCond.notify_all();
}

}  // namespace Kestrel::ipc::utils
