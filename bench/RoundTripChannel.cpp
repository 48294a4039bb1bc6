#include "RoundTripChannel.h"

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <string>

#include "SampleLog.h"

namespace velacam::bench {

namespace {

double median(std::vector<int64_t> samples) {
    const size_t middle = samples.size() / 2;
    std::nth_element(samples.begin(), samples.begin() + middle, samples.end());
    return static_cast<double>(samples[middle]);
}

// Minor page faults of the calling thread so far.
long threadFaults() {
    rusage usage{};
    getrusage(RUSAGE_THREAD, &usage);
    return usage.ru_minflt;
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
// next. The first of each block is not kept: it may pay for the work the
// previous channel's server was still doing after its last reply (the
// reactor's bookkeeping, the next wait), which belongs to that channel.
constexpr int kBlock = 8;

// One contender's record over a repetition.
struct Tally {
    std::vector<int64_t> samples;
    long clientFaults = 0;
    long serverFaultsAtStart = -1;
    long roundTrips = 0;
};

bool runBlock(RoundTripChannel& channel, Tally& tally) {
    const long faultsBefore = threadFaults();
    for (int i = 0; i < kBlock; ++i) {
        const int64_t ns = timedRoundTrip(channel);
        if (ns < 0) {
            return false;
        }
        if (i != 0) {
            tally.samples.push_back(ns);
        }
    }
    tally.clientFaults += threadFaults() - faultsBefore;
    tally.roundTrips += kBlock;
    return true;
}

// Faults per message in both processes, or -1 when the server's are unknown.
double faultsPerMessage(const Contender& contender, const Tally& tally) {
    const long serverNow = contender.channel->serverFaults();
    if (tally.serverFaultsAtStart < 0 || serverNow < 0 || tally.roundTrips == 0) {
        return -1;
    }
    const long faults = tally.clientFaults + serverNow - tally.serverFaultsAtStart;
    return static_cast<double>(faults) / static_cast<double>(2 * tally.roundTrips);
}

}  // namespace

void runInterleaved(benchmark::State& state, const std::vector<Contender>& contenders,
                    const std::string& sampleLabel) {
    std::vector<Tally> tallies(contenders.size());
    bool ok = true;
    // Warm-up: first touches of buffers and the allocator's first growth
    // are not steady state.
    for (size_t i = 0; ok && i < contenders.size(); ++i) {
        Tally warmUp;
        ok = runBlock(*contenders[i].channel, warmUp);
        tallies[i].serverFaultsAtStart = contenders[i].channel->serverFaults();
    }
    size_t first = 0;
    for (auto _ : state) {
        if (!ok) {
            break;
        }
        for (size_t n = 0; ok && n < contenders.size(); ++n) {
            const size_t i = (first + n) % contenders.size();
            ok = runBlock(*contenders[i].channel, tallies[i]);
        }
        first = (first + 1) % contenders.size();
    }
    std::vector<double> faults;
    for (size_t i = 0; i < contenders.size(); ++i) {
        faults.push_back(faultsPerMessage(contenders[i], tallies[i]));
    }
    bool finished = true;
    for (const Contender& contender : contenders) {
        finished = contender.channel->finish() && finished;
    }
    if (!ok || !finished) {
        state.SkipWithError("round trip failed");
        return;
    }
    if (tallies[0].samples.empty()) {
        return;
    }
    std::vector<double> medians;
    for (size_t i = 0; i < contenders.size(); ++i) {
        const std::string name = contenders[i].name;
        medians.push_back(median(tallies[i].samples));
        state.counters[name + "_ns"] = medians[i];
        if (faults[i] >= 0) {
            state.counters[name + "_faults"] = faults[i];
        }
        if (i == 1) {
            state.counters["ratio"] = medians[0] / medians[i];
        } else if (i > 1) {
            state.counters["ratio_" + name] = medians[0] / medians[i];
        }
        if (!sampleLabel.empty()) {
            logSamples(sampleLabel, contenders[i].name, tallies[i].samples);
        }
    }
}

void runPaired(benchmark::State& state, RoundTripChannel& ours, RoundTripChannel& reference,
               const std::string& sampleLabel) {
    runInterleaved(state, {{"ours", &ours}, {"reference", &reference}}, sampleLabel);
}

}  // namespace velacam::bench
