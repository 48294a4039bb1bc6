#include <gtest/gtest.h>
#include <ipc/CountingSemaphore.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

#include "support/Waiting.h"

namespace {

using namespace Kestrel::ipc;
using namespace velacam::test;

TEST(CountingSemaphoreTest,
     EachUnitLetsOneAcquireThroughAndANegativeCountHoldsWaiters_AcquireAllTakesEveryUnit) {
    Watchdog watchdog("CountingSemaphore case", 30s);
    CountingSemaphore semaphore(7);  // the key is not a count: it starts at 0
    semaphore.release(2);
    semaphore.release(-3);
    semaphore.release(2);
    semaphore.acquire();  // the one unit left: returns at once
    semaphore.release(3);
    for (int i = 0; i < 3; ++i) {
        semaphore.acquire();
    }

    std::atomic<int> returned{0};
    std::atomic<pid_t> tids[2] = {};
    const auto acquirers = [&] {
        std::vector<std::thread> threads;
        for (std::atomic<pid_t>& tid : tids) {
            tid = 0;
            threads.emplace_back([&] {
                tid = gettid();
                semaphore.acquire();
                ++returned;
            });
        }
        for (std::atomic<pid_t>& tid : tids) {
            EXPECT_TRUE(waitUntil([&] { return tid.load() != 0; }) && waitUntilAsleep(tid));
        }
        return threads;
    };
    semaphore.release(-1);
    std::vector<std::thread> waiters = acquirers();
    semaphore.release(1);  // back to 0: still nothing to take
    EXPECT_TRUE(holdsThroughGrace([&] { return returned.load() == 0; }));
    semaphore.release(1);  // wakes both; exactly one takes the unit
    EXPECT_TRUE(waitUntil([&] { return returned.load() == 1; }));
    EXPECT_TRUE(holdsThroughGrace([&] { return returned.load() == 1; }));
    semaphore.release(1);
    EXPECT_TRUE(waitUntil([&] { return returned.load() == 2; }));
    for (std::thread& waiter : waiters) {
        waiter.join();
    }

    // Both take their unit at once, not at the end of their 3 s wait slices.
    waiters = acquirers();
    semaphore.release(2);
    EXPECT_TRUE(waitUntil([&] { return returned.load() == 4; }, 2s));
    for (std::thread& waiter : waiters) {
        waiter.join();
    }

    // acquireAllWith takes every unit in one hold.
    semaphore.release(3);
    int calls = 0;
    semaphore.acquireAllWith([&calls] { ++calls; });
    EXPECT_EQ(calls, 1);
    waiters = acquirers();  // none of the three is left
    EXPECT_TRUE(holdsThroughGrace([&] { return returned.load() == 4; }));
    semaphore.release(2);
    EXPECT_TRUE(waitUntil([&] { return returned.load() == 6; }));
    for (std::thread& waiter : waiters) {
        waiter.join();
    }
}

}  // namespace
