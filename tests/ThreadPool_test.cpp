// ThreadPool: named workers, tasks from several producers, the wake-up and
// exit lines, shutting down with tasks queued, the exit listener, and the
// 10-second idle warning (the one test of this suite that waits for it).
#include <gtest/gtest.h>
#include <ipc/utils/Log.h>
#include <ipc/utils/ThreadPool.h>
#include <pthread.h>

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

using Kestrel::ipc::utils::LogSetting;
using Kestrel::ipc::utils::ThreadPool;
using velacam::test::LogCapture;
using velacam::test::waitUntil;
using namespace std::chrono_literals;

constexpr auto kLimit = 20s;

std::string currentThreadName() {
    char name[32] = {};
    pthread_getname_np(pthread_self(), name, sizeof(name));
    return name;
}

bool debugOn() { return LogSetting::logLevel() >= 1; }

class ThreadPoolTest : public ::testing::Test {
  protected:
    // Lines of `level` whose text is exactly `text`.
    size_t countAt(uint32_t level, const std::string& text) const {
        size_t n = 0;
        for (const auto& line : mCapture.lines()) {
            n += line.level == level && line.text == text && line.tag == "ThreadPool" ? 1 : 0;
        }
        return n;
    }

    LogCapture mCapture;  // before any worker starts
};

TEST_F(ThreadPoolTest, ZeroWorkersOnlyWarnsAndNeverRunsATask) {
    bool ran = false;
    {
        ThreadPool pool(0);
        pool.addTask([&ran] { ran = true; });
    }
    EXPECT_FALSE(ran);
    EXPECT_EQ(countAt(2, "do nothing since thread number is 0"), 1u);
}

TEST_F(ThreadPoolTest, RunsTasksFromSeveralProducersOnItsNamedWorkers) {
    constexpr int kProducers = 4;
    constexpr int kTasksEach = 50;
    std::atomic<int> done{0};
    std::mutex lock;
    std::set<std::string> names;  // guarded by lock
    {
        ThreadPool pool(3);
        std::vector<std::thread> producers;
        for (int p = 0; p < kProducers; ++p) {
            producers.emplace_back([&] {
                for (int t = 0; t < kTasksEach; ++t) {
                    pool.addTask([&] {
                        {
                            std::lock_guard<std::mutex> guard(lock);
                            names.insert(currentThreadName());
                        }
                        ++done;
                    });
                }
            });
        }
        for (std::thread& producer : producers) {
            producer.join();
        }
        ASSERT_TRUE(waitUntil([&] { return done == kProducers * kTasksEach; }, kLimit));
    }
    EXPECT_EQ(done, kProducers * kTasksEach);  // nothing ran twice
    ASSERT_FALSE(names.empty());
    for (const std::string& name : names) {
        EXPECT_TRUE(name == "ThreadPool-0" || name == "ThreadPool-1" || name == "ThreadPool-2")
                << name;
    }
    if (debugOn()) {
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(countAt(5, "[run] thread " + std::to_string(i) + " exit now"), 1u) << i;
        }
    }
}

TEST_F(ThreadPoolTest, WorkerLogsItsWakeUpForATask) {
    ThreadPool pool(1);
    std::promise<void> ran;
    pool.addTask([&ran] { ran.set_value(); });
    ASSERT_EQ(ran.get_future().wait_for(kLimit), std::future_status::ready);
    EXPECT_EQ(countAt(3, "wake up since queue size(1) or isExiting(no)"), 1u);
}

TEST_F(ThreadPoolTest, IdleWorkerWakesForExitWithNothingToRunAndReturns) {
    { ThreadPool pool(1); }
    EXPECT_EQ(countAt(3, "wake up since queue size(0) or isExiting(yes)"), 1u);
    EXPECT_EQ(countAt(2, "thread 0 has no callable method, do nothing"), 1u);
    if (debugOn()) {
        EXPECT_EQ(countAt(5, "[run] thread 0 exit now"), 1u);
    }
}

TEST_F(ThreadPoolTest, ExitWithTasksQueuedRunsNoMoreAndDiscardsThem) {
    std::promise<void> started;
    std::promise<void> gate;
    std::shared_future<void> opened = gate.get_future().share();
    auto token = std::make_shared<int>(0);
    std::atomic<int> queuedRan{0};
    {
        ThreadPool pool(1);
        pool.addTask([&started, opened] {
            started.set_value();
            opened.wait_for(kLimit);
        });
        ASSERT_EQ(started.get_future().wait_for(kLimit), std::future_status::ready);
        for (int i = 0; i < 5; ++i) {
            pool.addTask([token, &queuedRan] { ++queuedRan; });
        }
        EXPECT_EQ(token.use_count(), 6);
        pool.requestExit();
        pool.requestExit();  // harmless twice
        gate.set_value();
    }
    // The worker saw the exit after its task and returned; the queued tasks
    // were destroyed with the pool, never run.
    EXPECT_EQ(queuedRan, 0);
    EXPECT_EQ(token.use_count(), 1);
}

TEST_F(ThreadPoolTest, TaskMayAddFurtherTasks) {
    std::promise<std::string> second;
    ThreadPool pool(2);
    pool.addTask([&pool, &second] {
        pool.addTask([&second] { second.set_value(currentThreadName()); });
    });
    auto future = second.get_future();
    ASSERT_EQ(future.wait_for(kLimit), std::future_status::ready);
    EXPECT_EQ(future.get().rfind("ThreadPool-", 0), 0u);
}

class FunctionListener : public ThreadPool::ExitListener {
  public:
    explicit FunctionListener(std::function<void()> onExit) : mOnExit(std::move(onExit)) {}
    void onThreadPoolExit() override { mOnExit(); }

  private:
    std::function<void()> mOnExit;
};

TEST_F(ThreadPoolTest, ExitListenerIsToldOnceAfterTheWorkersReturned) {
    int calls = 0;
    bool sawTaskFinished = false;
    std::atomic<bool> taskFinished{false};
    auto listener = std::make_shared<FunctionListener>([&] {
        ++calls;
        sawTaskFinished = taskFinished;
    });
    {
        ThreadPool pool(1);
        pool.setExitListener(listener);
        std::promise<void> started;
        std::promise<void> gate;
        std::shared_future<void> opened = gate.get_future().share();
        pool.addTask([&started, &taskFinished, opened] {
            started.set_value();
            opened.wait_for(kLimit);
            taskFinished = true;
        });
        ASSERT_EQ(started.get_future().wait_for(kLimit), std::future_status::ready);
        pool.requestExit();
        gate.set_value();
        EXPECT_EQ(calls, 0);
    }
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(sawTaskFinished);
    EXPECT_EQ(listener.use_count(), 1);  // the pool kept no strong reference
}

TEST_F(ThreadPoolTest, ExitListenerThatIsGoneIsSkipped) {
    int calls = 0;
    {
        ThreadPool pool(1);
        pool.setExitListener(std::make_shared<FunctionListener>([&calls] { ++calls; }));
    }
    EXPECT_EQ(calls, 0);
}

TEST_F(ThreadPoolTest, IdleWorkersWarnAfterEachTenSecondSlice) {
    ThreadPool pool(2);
    EXPECT_TRUE(mCapture.waitFor("timed out, queue size(0) isExiting(no)", 2, 25s));
    EXPECT_EQ(countAt(2, "timed out, queue size(0) isExiting(no)"), 2u);
}

}  // namespace
