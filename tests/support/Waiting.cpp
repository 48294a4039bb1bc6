#include "support/Waiting.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <string>

namespace velacam::test {

bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

bool waitUntilAsleep(pid_t tid, std::chrono::milliseconds timeout) {
    const std::string path = "/proc/self/task/" + std::to_string(tid) + "/stat";
    return waitUntil(
            [&path] {
                // "tid (name) state ...": the state follows the last ')'.
                std::string stat;
                std::getline(std::ifstream(path), stat);
                const size_t close = stat.rfind(')');
                return close != std::string::npos && close + 2 < stat.size() &&
                       stat[close + 2] == 'S';
            },
            timeout);
}

bool holdsThroughGrace(const std::function<bool()>& condition) {
    return !waitUntil([&condition] { return !condition(); }, 50ms);
}

void expectExitWakesExactly(const std::atomic<int>& returned, int declared,
                            const std::function<void()>& notify,
                            const std::function<void()>& requestExit) {
    notify();
    EXPECT_TRUE(holdsThroughGrace([&] { return returned.load() == 0; })) << "woken by a notify";
    requestExit();
    EXPECT_TRUE(waitUntil([&] { return returned.load() >= declared; }));
    EXPECT_TRUE(holdsThroughGrace([&] { return returned.load() == declared; }))
            << "a surplus waiter woken at exit";
}

struct Watchdog::State {
    std::mutex lock;
    std::condition_variable disarmed;
    bool done = false;
};

Watchdog::Watchdog(const char* what, std::chrono::milliseconds limit)
    : mState(std::make_shared<State>()) {
    mThread = std::thread([state = mState, what, limit] {
        std::unique_lock<std::mutex> lock(state->lock);
        if (!state->disarmed.wait_for(lock, limit, [state] { return state->done; })) {
            std::fprintf(stderr, "watchdog: '%s' did not finish within %lld ms\n", what,
                         static_cast<long long>(limit.count()));
            std::fflush(stderr);
            std::abort();
        }
    });
}

Watchdog::~Watchdog() {
    {
        std::lock_guard<std::mutex> lock(mState->lock);
        mState->done = true;
    }
    mState->disarmed.notify_all();
    mThread.join();
}

}  // namespace velacam::test
