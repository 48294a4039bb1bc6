#include "ProgressLine.h"

#include <unistd.h>

#include <cstdio>

namespace demo {

namespace {
constexpr auto kQuietStart = std::chrono::seconds(2);
constexpr auto kInterval = std::chrono::milliseconds(500);
}  // namespace

ProgressLine::ProgressLine(size_t total)
    : mTotal(total),
      mToTerminal(isatty(STDERR_FILENO) == 1),
      mNextShow(Clock::now() + kQuietStart) {}

void ProgressLine::update(size_t done) {
    if (!mToTerminal) {
        return;
    }
    const Clock::time_point now = Clock::now();
    if (now < mNextShow) {
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
