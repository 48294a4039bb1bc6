// Test helpers that bound every wait, so that a hang fails instead of
// stalling CI.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <thread>

namespace velacam::test {

using namespace std::chrono_literals;

// Polls `condition` every millisecond until it holds; false after `timeout`.
bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout = 10s);

// Waits until thread `tid` of this process sleeps in the kernel (it has
// reached a blocking wait); false after `timeout`.
bool waitUntilAsleep(pid_t tid, std::chrono::milliseconds timeout = 10s);

// For "a waiter is not woken", which has no event of its own to wait for:
// true when `condition` holds throughout a short grace period (50 ms). That
// period is the definition of "not woken" in these suites; nothing else
// waits for time.
bool holdsThroughGrace(const std::function<bool()>& condition);

// For a container whose blocked waiters count themselves in `returned` as
// they leave: `notify` (a wake-up without a unit) must free none of them and
// `requestExit` exactly `declared`, any surplus waiter staying blocked.
void expectExitWakesExactly(const std::atomic<int>& returned, int declared,
                            const std::function<void()>& notify,
                            const std::function<void()>& requestExit);

// Aborts the whole test process, naming `what`, unless disarmed (destroyed)
// within `limit`. Put one around any step that could block forever.
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
