#include <gtest/gtest.h>
#include <ipc/utils/ThreadPool.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/LogCapture.h"
#include "support/Waiting.h"

namespace {

using namespace Kestrel::ipc::utils;
using namespace velacam::test;

constexpr auto kLimit = 20s;

class FunctionListener : public ThreadPool::ExitListener {
  public:
    explicit FunctionListener(std::function<void()> onExit) : mOnExit(std::move(onExit)) {}
    void onThreadPoolExit() override { mOnExit(); }

  private:
    std::function<void()> mOnExit;
};

class ThreadPoolTest : public ::testing::Test {
  protected:
    LogCapture mCapture;  // before any worker starts
};

TEST_F(ThreadPoolTest, ZeroWorkersOnlyWarn_OneWorkerRunsTasksInTheOrderAdded) {
    bool ran = false;
    {
        ThreadPool none(0);
        none.addTask([&ran] { ran = true; });
        none.setExitListener(std::make_shared<FunctionListener>([&ran] { ran = true; }));
    }
    EXPECT_FALSE(ran);  // neither the task nor the listener that is gone
    EXPECT_EQ(mCapture.levelOf("do nothing since thread number is 0"), 2u);

    // The worker is held in its first task while the others queue up.
    std::promise<void> gate;
    std::shared_future<void> opened = gate.get_future().share();
    std::vector<int> order;  // the worker's until `done`
    std::promise<size_t> done;
    ThreadPool pool(1);
    pool.addTask([opened] { opened.wait_for(kLimit); });
    for (int i = 0; i < 20; ++i) {
        pool.addTask([&order, i] { order.push_back(i); });
    }
    pool.addTask([&] { done.set_value(order.size()); });
    gate.set_value();
    std::future<size_t> lastRan = done.get_future();
    ASSERT_EQ(lastRan.wait_for(kLimit), std::future_status::ready);
    ASSERT_EQ(lastRan.get(), 20u);
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}

TEST_F(ThreadPoolTest, RunsTasksFromSeveralProducersOnItsNamedWorkers) {
    constexpr int kTasks = 4 * 50 + 1;  // four producers, and one task that adds a task
    std::atomic<int> done{0};
    std::mutex lock;
    std::set<std::string> names;  // guarded by lock
    {
        ThreadPool pool(3);
        const auto task = [&] {
            char name[32] = {};
            pthread_getname_np(pthread_self(), name, sizeof(name));
            std::lock_guard<std::mutex> guard(lock);
            names.insert(name);
            ++done;
        };
        pool.addTask([&] { pool.addTask(task); });
        std::vector<std::thread> producers;
        for (int p = 0; p < 4; ++p) {
            producers.emplace_back([&] {
                for (int t = 0; t < 50; ++t) {
                    pool.addTask(task);
                }
            });
        }
        for (std::thread& producer : producers) {
            producer.join();
        }
        ASSERT_TRUE(waitUntil([&] { return done == kTasks; }, kLimit));
    }
    EXPECT_EQ(done, kTasks);  // nothing ran twice
    const std::set<std::string> workers = {"ThreadPool-0", "ThreadPool-1", "ThreadPool-2"};
    EXPECT_FALSE(names.empty());
    EXPECT_TRUE(std::includes(workers.begin(), workers.end(), names.begin(), names.end()));
}

TEST_F(ThreadPoolTest, ExitWithTasksQueuedDiscardsThemAndThenTellsTheListenerOnce) {
    std::promise<void> started;
    std::promise<void> gate;
    std::shared_future<void> opened = gate.get_future().share();
    auto token = std::make_shared<int>(0);
    std::atomic<bool> taskFinished{false};
    std::vector<bool> listenerSawTaskFinished;
    auto listener = std::make_shared<FunctionListener>(
            [&] { listenerSawTaskFinished.push_back(taskFinished); });
    {
        ThreadPool pool(1);
        pool.setExitListener(listener);
        pool.addTask([&, opened] {
            started.set_value();
            opened.wait_for(kLimit);
            taskFinished = true;
        });
        ASSERT_EQ(started.get_future().wait_for(kLimit), std::future_status::ready);
        for (int i = 0; i < 5; ++i) {
            pool.addTask([token] { ADD_FAILURE() << "a discarded task ran"; });
        }
        EXPECT_EQ(token.use_count(), 6);
        pool.requestExit();
        pool.requestExit();  // harmless twice
        gate.set_value();
        EXPECT_TRUE(listenerSawTaskFinished.empty());
    }
    EXPECT_EQ(token.use_count(), 1);  // the queued tasks went with the pool
    EXPECT_EQ(listenerSawTaskFinished, std::vector<bool>{true});
    EXPECT_EQ(listener.use_count(), 1);  // the pool kept no strong reference
}

}  // namespace
