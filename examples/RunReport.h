// The demo's closing table: counts, round-trip latency and throughput, and the
// verdict.
#pragma once

#include <chrono>
#include <cstddef>
#include <vector>

namespace demo {

class RunReport {
  public:
    void addRoundTrip(std::chrono::nanoseconds latency) { mLatencies.push_back(latency); }
    void setElapsed(std::chrono::nanoseconds elapsed) { mElapsed = elapsed; }

    size_t requests = 0;
    size_t descriptorsPassed = 0;
    size_t buffersVerified = 0;
    size_t buffersExpected = 0;
    size_t repliesLost = 0;
    size_t failedStatuses = 0;
    long leakedDescriptors = 0;
    bool childReaped = false;

    bool success() const;
    void print() const;

  private:
    std::vector<std::chrono::nanoseconds> mLatencies;
    std::chrono::nanoseconds mElapsed{0};
};

}  // namespace demo
