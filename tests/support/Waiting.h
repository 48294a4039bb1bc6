// Test helpers that bound every wait.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <thread>

namespace velacam::test {

using namespace std::chrono_literals;

// Polls `condition` every millisecond until it holds; false after `timeout`.
bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout = 10s);

// Waits until thread `tid` of this process sleeps in the kernel.
bool waitUntilAsleep(pid_t tid, std::chrono::milliseconds timeout = 10s);

// True when `condition` holds throughout 50 ms: what "not woken" means here.
bool holdsThroughGrace(const std::function<bool()>& condition);

// Runs `body` on a thread of its own, returning once that thread sleeps.
template <typename Body>
auto startBlocked(Body body) {
    std::promise<pid_t> tid;
    auto result = std::async(std::launch::async, [&tid, body] {
        tid.set_value(gettid());
        return body();
    });
    EXPECT_TRUE(waitUntilAsleep(tid.get_future().get()));
    return result;
}

// Blocked waiters count themselves in `returned` as they leave: `notify` must
// free none of them, `requestExit` exactly `declared`.
void expectExitWakesExactly(const std::atomic<int>& returned, int declared,
                            const std::function<void()>& notify,
                            const std::function<void()>& requestExit);

// Aborts the test process, naming `what`, unless destroyed within `limit`.
class Watchdog {
  public:
    Watchdog(const char* what, std::chrono::milliseconds limit);
    ~Watchdog();
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

  private:
    struct State;
    std::shared_ptr<State> mState;
    std::thread mThread;
};

}  // namespace velacam::test
