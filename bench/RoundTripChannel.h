// RoundTripChannel: a client connected to a serving process of its own, able
// to make one request-and-reply round trip at a time.
//
// Round trips are measured in pairs: the library's channel and a reference
// channel (the raw floor, or ZeroMQ) are set up side by side and used in
// turn, a short block of round trips each per iteration, every round trip
// timed on its own. A busy neighbour on these shared machines then slows
// both alike, and the median of single round trips ignores the ones it
// preempted.
//
// Ownership: a channel owns its socket and its forked server; finish() stops
// the server and waits for it (bounded). Thread: the benchmark's thread.
#pragma once

#include <benchmark/benchmark.h>

#include <memory>

#include "RoundTripSetup.h"

namespace velacam::bench {

class RoundTripChannel {
  public:
    virtual ~RoundTripChannel() = default;
    // One request and its reply; false on any failure.
    virtual bool roundTrip() = 0;
    // Stops the server and waits for it; false when it failed or hung.
    virtual bool finish() = 0;
};

// The raw system-call floor (RawFloor): server polls the socket and the
// shape's idle descriptors.
std::unique_ptr<RoundTripChannel> makeFloorChannel(const RoundTripShape& shape);

// The library: UnixDomainSocket client, DefaultReactor server with the
// shape's idle handlers. With `hostLogging` both sides log as the host does
// by default (sDetailsLevel 5) instead of errors only.
std::unique_ptr<RoundTripChannel> makeLibraryChannel(const RoundTripShape& shape, bool hostLogging);

// Runs blocks of round trips on `ours` and `reference` in turn (which goes
// first alternating) for as long as the benchmark asks; one iteration is a
// block on each. Reports per repetition the median single round trip of
// each, "ours_ns" and "reference_ns", and their "ratio".
void runPaired(benchmark::State& state, RoundTripChannel& ours, RoundTripChannel& reference);

}  // namespace velacam::bench
