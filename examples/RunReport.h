// The demo's closing table: counts, round-trip latency and throughput, and the
// verdict.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace demo {

class RunReport {
  public:
    void addRoundTrip(std::chrono::nanoseconds latency) { mLatencies.push_back(latency); }
    void setElapsed(std::chrono::nanoseconds elapsed) { mElapsed = elapsed; }

    size_t requests = 0;  // sent, or tried
    size_t answered = 0;  // replies received in time
    size_t descriptorsPassed = 0;
    size_t buffersVerified = 0;
    size_t buffersExpected = 0;
    std::vector<uint32_t> lostRequests;  // sent (or tried), no reply
    size_t neverSent = 0;                // not tried after the run stopped
    double hangUpNoticedAfterMs = -1;    // from the last send; negative: not noticed
    size_t failedStatuses = 0;
    long leakedDescriptors = 0;
    bool algorithmKilled = false;        // on purpose, by the camera
    std::optional<int> algorithmStatus;  // its wait status, once reaped

    bool success() const;
    void print() const;

  private:
    // Killed by the camera, or ended by a signal other than the SIGTERM that
    // ends every run.
    bool algorithmDied() const;
    std::string algorithmFate() const;
    std::string idList() const;  // "11" or "11, 12"

    std::vector<std::chrono::nanoseconds> mLatencies;
    std::chrono::nanoseconds mElapsed{0};
};

}  // namespace demo
