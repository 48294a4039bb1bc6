#include "ProgressLine.h"

#include <unistd.h>

#include <cstdio>

namespace demo {

namespace {
constexpr auto kQuietStart = std::chrono::seconds(2);
constexpr auto kInterval = std::chrono::milliseconds(500);        // on a terminal
constexpr auto kPlainInterval = std::chrono::milliseconds(5000);  // anywhere else
}  // namespace

ProgressLine::ProgressLine(size_t total)
    : mTotal(total),
      mToTerminal(isatty(STDERR_FILENO) == 1),
      mNextShow(Clock::now() + kQuietStart) {}

void ProgressLine::update(size_t done) {
    const Clock::time_point now = Clock::now();
    if (now < mNextShow) {
        return;
    }
    if (!mToTerminal) {
        mNextShow = now + kPlainInterval;
        std::printf("  ... %zu of %zu requests\n", done, mTotal);
        std::fflush(stdout);
        return;
    }
    mNextShow = now + kInterval;
    mShown = true;
    std::fprintf(stderr, "\r  ... %zu of %zu requests", done, mTotal);
    std::fflush(stderr);
}

void ProgressLine::finish() {
    if (mShown) {
        std::fputs("\r\033[K", stderr);
        std::fflush(stderr);
        mShown = false;
    }
}

}  // namespace demo
