// CountingSemaphore: counting, waking, and the lines that show the count.
#include <gtest/gtest.h>
#include <ipc/CountingSemaphore.h>
#include <ipc/utils/Log.h>

#include <atomic>
#include <thread>

#include "support/LogChecks.h"
#include "support/Waiting.h"

namespace {

using namespace Kestrel::ipc;
using namespace velacam::test;

class CountingSemaphoreTest : public DebugLogTest {
  protected:
    // Starts a thread that acquires once and then counts itself returned.
    std::thread acquirer(CountingSemaphore& semaphore) {
        return std::thread([this, &semaphore] {
            semaphore.acquire();
            ++returned;
        });
    }
    // True when `returned` still reads `n` after a window in which a wrongly
    // woken waiter would have come back.
    bool staysAt(int n) {
        std::this_thread::sleep_for(50ms);
        return returned.load() == n;
    }

    Watchdog watchdog{"CountingSemaphore test", 30s};
    std::atomic<int> returned{0};
};

TEST_F(CountingSemaphoreTest, KeyInLinesIsTheCountAndEachUnitLetsOneAcquireThrough) {
    CountingSemaphore semaphore(7);
    semaphore.release(2);
    semaphore.release(-3);
    semaphore.release(2);
    semaphore.acquire();  // takes the one unit at once, logging nothing
    semaphore.release(1);
    const auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 8u);
    const char* expected[] = {
            "[release] before releasing! key:0",  "[release] after releasing! key:2",
            "[release] before releasing! key:2",  "[release] after releasing! key:-1",
            "[release] before releasing! key:-1", "[release] after releasing! key:1",
            "[release] before releasing! key:0",  "[release] after releasing! key:1"};
    for (size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(lines[i].text, expected[i]);
        EXPECT_EQ(lines[i].tag, "CountingSemaphore");
        EXPECT_EQ(lines[i].moduleId, Kestrel::ipc::utils::kLogModuleSync);
        EXPECT_EQ(lines[i].level, 5u);
    }

    semaphore.release(2);
    for (int i = 0; i < 3; ++i) {
        semaphore.acquire();
    }
    EXPECT_EQ(capture.countContaining("[acquire]"), 0u);  // none of them waited
    semaphore.release(-1);
    std::thread first = acquirer(semaphore);
    std::thread second = acquirer(semaphore);
    semaphore.release(1);  // back to 0: still nothing to take
    EXPECT_TRUE(staysAt(0));
    semaphore.release(1);  // wakes both; exactly one takes the unit
    EXPECT_TRUE(waitUntil([&] { return returned.load() == 1; }));
    EXPECT_TRUE(staysAt(1));
    semaphore.release(1);
    EXPECT_TRUE(waitUntil([&] { return returned.load() == 2; }));
    first.join();
    second.join();
}

// The one slow case: a waiter that finds no unit for a whole 3000 ms slice
// says so, and keeps waiting.
TEST_F(CountingSemaphoreTest, WaiterLogsTimeoutOncePerSliceAndKeepsWaiting) {
    CountingSemaphore semaphore(1);
    std::thread waiter = acquirer(semaphore);
    ASSERT_TRUE(capture.waitFor("[acquire] timeout! key:0", 1, 10s));
    EXPECT_EQ(returned.load(), 0);
    semaphore.release(1);
    EXPECT_TRUE(waitUntil([&] { return returned.load() == 1; }));
    waiter.join();
    EXPECT_EQ(capture.count("[acquire] timeout! key:0"), 1u);
    EXPECT_EQ(capture.count("[acquire] finishing waiting! key:1"), 1u);
}

}  // namespace
