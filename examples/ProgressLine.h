// A progress line for long demo runs, shown only to a person watching.
//
// Once a run has lasted about two seconds: when standard error is a
// terminal, it rewrites one line there about twice a second ("... 1200 of
// 50000 requests"), which finish() clears; anywhere else (a pipe, a CI log)
// it prints one such line on standard output every five seconds, so that a
// correct run still leaves standard error empty. One thread uses an object.
#pragma once

#include <chrono>
#include <cstddef>

namespace demo {

class ProgressLine {
  public:
    explicit ProgressLine(size_t total);

    // `done` requests so far; cheap when there is nothing to show.
    void update(size_t done);

    // Clears the line if one was shown.
    void finish();

  private:
    using Clock = std::chrono::steady_clock;

    const size_t mTotal;
    const bool mToTerminal;
    Clock::time_point mNextShow;
    bool mShown = false;
};

}  // namespace demo
