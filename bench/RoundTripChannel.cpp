#include "RoundTripChannel.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <vector>

namespace velacam::bench {

namespace {

double median(std::vector<int64_t>& samples) {
    const size_t middle = samples.size() / 2;
    std::nth_element(samples.begin(), samples.begin() + middle, samples.end());
    return static_cast<double>(samples[middle]);
}

// Nanoseconds taken by one round trip on `channel`, or -1 on failure.
int64_t timedRoundTrip(RoundTripChannel& channel) {
    const auto start = std::chrono::steady_clock::now();
    if (!channel.roundTrip()) {
        return -1;
    }
    const auto elapsed = std::chrono::steady_clock::now() - start;
    return std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count();
}

// Round trips made back to back on one channel before switching to the
// other. The first of each block is not kept: it may pay for the work the
// other channel's server was still doing after its last reply (the
// reactor's bookkeeping, the next wait), which belongs to that channel.
constexpr int kBlock = 8;

bool runBlock(RoundTripChannel& channel, std::vector<int64_t>& samples) {
    for (int i = 0; i < kBlock; ++i) {
        const int64_t ns = timedRoundTrip(channel);
        if (ns < 0) {
            return false;
        }
        if (i != 0) {
            samples.push_back(ns);
        }
    }
    return true;
}

}  // namespace

void runPaired(benchmark::State& state, RoundTripChannel& ours, RoundTripChannel& reference) {
    std::vector<int64_t> oursSamples;
    std::vector<int64_t> referenceSamples;
    bool ok = true;
    bool oursFirst = true;
    for (auto _ : state) {
        ok = oursFirst ? runBlock(ours, oursSamples) && runBlock(reference, referenceSamples)
                       : runBlock(reference, referenceSamples) && runBlock(ours, oursSamples);
        if (!ok) {
            break;
        }
        oursFirst = !oursFirst;
    }
    const bool oursFinished = ours.finish();
    const bool referenceFinished = reference.finish();
    if (!ok || !oursFinished || !referenceFinished) {
        state.SkipWithError("round trip failed");
        return;
    }
    if (oursSamples.empty()) {
        return;
    }
    const double oursNs = median(oursSamples);
    const double referenceNs = median(referenceSamples);
    state.counters["ours_ns"] = oursNs;
    state.counters["reference_ns"] = referenceNs;
    state.counters["ratio"] = oursNs / referenceNs;
}

}  // namespace velacam::bench
