// CountingSemaphore: counting, waking, and the lines that show the count.
#include <gtest/gtest.h>
#include <ipc/CountingSemaphore.h>
#include <ipc/utils/Log.h>

#include <atomic>
#include <thread>

#include "support/LogCapture.h"
#include "support/Waiting.h"

namespace {

using Kestrel::ipc::CountingSemaphore;
using Kestrel::ipc::utils::LogSetting;
using velacam::test::LogCapture;
using velacam::test::waitUntil;
using velacam::test::Watchdog;
using namespace std::chrono_literals;

class CountingSemaphoreTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (LogSetting::logLevel() < 1) {
            GTEST_SKIP() << "needs the debug property";
        }
    }
    LogCapture capture;
    Watchdog watchdog{"CountingSemaphore test", 30s};
};

TEST_F(CountingSemaphoreTest, AcquireAfterReleaseReturnsAtOnceWithoutLogging) {
    CountingSemaphore semaphore(1);
    semaphore.release(1);
    capture.clear();
    semaphore.acquire();
    EXPECT_EQ(capture.countContaining("[acquire]"), 0u);
    // The unit is gone: the next release starts from 0.
    semaphore.release(1);
    EXPECT_EQ(capture.count("[release] before releasing! key:0"), 1u);
}

TEST_F(CountingSemaphoreTest, KeyInLinesIsTheCountNotTheConstructorKey) {
    CountingSemaphore semaphore(7);
    semaphore.release(2);
    semaphore.release(-3);
    const auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0].text, "[release] before releasing! key:0");
    EXPECT_EQ(lines[1].text, "[release] after releasing! key:2");
    EXPECT_EQ(lines[2].text, "[release] before releasing! key:2");
    EXPECT_EQ(lines[3].text, "[release] after releasing! key:-1");
    for (const auto& line : lines) {
        EXPECT_EQ(line.tag, "CountingSemaphore");
        EXPECT_EQ(line.moduleId, Kestrel::ipc::utils::kLogModuleSync);
        EXPECT_EQ(line.level, 5u);
    }
    EXPECT_EQ(capture.countContaining("key:7"), 0u);
}

TEST_F(CountingSemaphoreTest, ReleaseOfThreeLetsThreeAcquiresThroughAndTheFourthWaits) {
    CountingSemaphore semaphore(3);
    semaphore.release(3);
    semaphore.acquire();
    semaphore.acquire();
    semaphore.acquire();
    EXPECT_EQ(capture.countContaining("[acquire]"), 0u);

    std::atomic<bool> fourthReturned{false};
    std::thread fourth([&] {
        semaphore.acquire();
        fourthReturned = true;
    });
    std::this_thread::sleep_for(50ms);  // a window in which it must stay blocked
    EXPECT_FALSE(fourthReturned);
    semaphore.release(1);
    EXPECT_TRUE(waitUntil([&] { return fourthReturned.load(); }));
    fourth.join();
}

TEST_F(CountingSemaphoreTest, NonPositiveCountMakesAcquireWait) {
    CountingSemaphore semaphore(1);
    semaphore.release(-1);
    std::atomic<bool> returned{false};
    std::thread waiter([&] {
        semaphore.acquire();
        returned = true;
    });
    semaphore.release(1);  // back to 0: still nothing to take
    std::this_thread::sleep_for(50ms);
    EXPECT_FALSE(returned);
    semaphore.release(1);
    EXPECT_TRUE(waitUntil([&] { return returned.load(); }));
    waiter.join();
}

TEST_F(CountingSemaphoreTest, OneUnitWakesExactlyOneOfTwoWaiters) {
    CountingSemaphore semaphore(2);
    std::atomic<int> returned{0};
    auto waiter = [&] {
        semaphore.acquire();
        ++returned;
    };
    std::thread first(waiter);
    std::thread second(waiter);
    semaphore.release(1);
    EXPECT_TRUE(waitUntil([&] { return returned.load() == 1; }));
    std::this_thread::sleep_for(50ms);  // the other must stay blocked
    EXPECT_EQ(returned.load(), 1);
    semaphore.release(1);
    EXPECT_TRUE(waitUntil([&] { return returned.load() == 2; }));
    first.join();
    second.join();
}

// The one slow case: a waiter that finds no unit for a whole 3000 ms slice
// says so, and keeps waiting.
TEST_F(CountingSemaphoreTest, WaiterLogsTimeoutOncePerSliceAndKeepsWaiting) {
    CountingSemaphore semaphore(1);
    std::atomic<bool> returned{false};
    std::thread waiter([&] {
        semaphore.acquire();
        returned = true;
    });
    ASSERT_TRUE(capture.waitFor("[acquire] timeout! key:0", 1, 10s));
    EXPECT_FALSE(returned);
    semaphore.release(1);
    EXPECT_TRUE(waitUntil([&] { return returned.load(); }));
    waiter.join();
    EXPECT_EQ(capture.count("[acquire] timeout! key:0"), 1u);
    EXPECT_EQ(capture.count("[acquire] finishing waiting! key:1"), 1u);
}

}  // namespace
