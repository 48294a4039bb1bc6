// ThreadPool: a fixed number of named worker threads that take tasks from
// one shared first-in first-out queue.
//
// The workers ("ThreadPool-0", "ThreadPool-1", ...) are made and started by
// the constructor. requestExit() or destruction ends the pool: a worker that
// wakes for exit still runs one queued task, if there is one, before it
// returns; the destructor joins every worker and discards the tasks left.
//
// Ownership: the pool owns its workers and the queued tasks. An exit
// listener is only referred to (weakly) and told once, at destruction, if it
// is still alive.
// Thread: addTask() and requestExit() from any thread, also from a task;
// setExitListener() and destruction from the owner. Clang checks the locking
// against the annotations below.
// Failure: a pool of zero workers only warns ("do nothing since thread number
// is 0") and never runs a task; a worker that cannot be created makes the
// constructor throw std::system_error (see Thread::start()). A task that
// throws ends the process with "thread pool task threw an exception: %s"
// (its what()): nobody is there to catch it.
//
// Compatibility: kept as log readers rely on it. An idle worker waits in
// slices of 10 seconds and warns "timed out, queue size(%zu) isExiting(%s)"
// after each; one that wakes for exit with no task left warns "thread %zu
// has no callable method, do nothing".
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "ipc/Export.h"
#include "ipc/utils/Mutex.h"
#include "ipc/utils/Thread.h"
#include "ipc/utils/ThreadSafety.h"

namespace Kestrel::ipc::utils {

class IPC_EXPORT ThreadPool {
  public:
    // Told when the pool it listens to has joined its workers.
    class IPC_EXPORT ExitListener {
      public:
        virtual ~ExitListener();
        // Called once, on the thread destroying the pool, after every worker
        // has returned and before the queued tasks are discarded.
        virtual void onThreadPoolExit() = 0;
    };

    // Makes `n` workers and starts them.
    explicit ThreadPool(unsigned long n);
    // Requests exit if no one did, joins every worker, tells the exit
    // listener, then discards the tasks that were never run.
    // Blocks: until every worker's current task returns.
    ~ThreadPool();
    ThreadPool(const ThreadPool&) = delete;
    ThreadPool& operator=(const ThreadPool&) = delete;

    // Queues `task` (any callable with no arguments; its result is dropped)
    // at the back and wakes ONE waiting worker. After requestExit() a task
    // may still run (at most one per worker) or be discarded.
    template <typename Task>
    void addTask(Task&& task) IPC_EXCLUDES(mTasksLock) {
        {
            LockGuard lock(mTasksLock);
            mTasks.emplace_back(std::forward<Task>(task));
        }
        mTasksCond.notify_one();
    }

    // Marks the pool as exiting for good and wakes every worker. Does not
    // wait for them.
    void requestExit() IPC_EXCLUDES(mTasksLock);

    // Sets the object told at destruction; the pool does not keep it alive.
    void setExitListener(std::weak_ptr<ExitListener> listener);

  private:
    class Worker;

    // Starts every worker, in order.
    void dispatch() IPC_EXCLUDES(mWorkersLock);
    void wakeAllForExit() IPC_EXCLUDES(mTasksLock);

    Mutex mWorkersLock;            // serialises dispatch()
    std::vector<Thread> mWorkers;  // each owns its Worker; made by the constructor
    std::deque<std::function<void()>> mTasks IPC_GUARDED_BY(mTasksLock);
    Mutex mTasksLock;
    std::condition_variable mTasksCond;         // workers wait here under mTasksLock
    std::atomic<bool> mIsExiting{false};        // set once; also read under mTasksLock
    std::weak_ptr<ExitListener> mExitListener;  // owner thread only
};

}  // namespace Kestrel::ipc::utils
