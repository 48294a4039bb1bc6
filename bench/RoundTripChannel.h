// RoundTripChannel: a client connected to a serving process of its own, able
// to make one request-and-reply round trip at a time.
//
// Round trips are measured in sets: the library's channel and its reference
// channels (the raw floors, or ZeroMQ) are set up side by side and used in
// turn, a short block of round trips each per iteration, every round trip
// timed on its own. A busy neighbour on these shared machines then slows
// all alike, and the median of single round trips ignores the ones it
// preempted.
//
// Ownership: a channel owns its socket and its forked server; finish() stops
// the server and waits for it (bounded). Thread: the benchmark's thread.
#pragma once

#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

#include "RoundTripSetup.h"

namespace velacam::bench {

class RoundTripChannel {
  public:
    virtual ~RoundTripChannel() = default;
    // One request and its reply; false on any failure.
    virtual bool roundTrip() = 0;
    // Stops the server and waits for it; false when it failed or hung.
    virtual bool finish() = 0;
    // Minor page faults of the serving process so far; -1 when unknown.
    virtual long serverFaults() const = 0;
};

// How a raw floor moves the two records of a message: one sendmsg() and one
// recvmsg() per record (RawFloor); one sendmmsg() per message and one
// recvmsg() per record, the header read first (RawFloor with
// SendCalls::kOne); one sendmmsg() and one recvmmsg() per message
// (BatchedFloor); or the same with the library's default guards on the
// receive path (BatchedFloor with Guards::kLibraryDefaults).
enum class FloorCalls { kPerRecord, kOneSend, kBatched, kBatchedGuarded };

// A raw system-call floor: server polls the socket and the shape's idle
// descriptors. Null when the socket buffers cannot take the largest record.
std::unique_ptr<RoundTripChannel> makeFloorChannel(const RoundTripShape& shape, FloorCalls calls);

// How the library's channel is used.
struct LibraryUse {
    // Both sides log with every level open (sDetailsLevel 5, what
    // VELACAM_LOG_LEVEL=5 gives) instead of errors only.
    bool hostLogging = false;
    // Both sides read the data of each message they receive with payload(),
    // as a user of a large message does.
    bool readsPayload = false;
    // Both sides wait for a payload record without limit
    // (setPayloadTimeout(0)) instead of the default bound of 1 s.
    bool unboundedPayloadWait = false;
    // The server answers with the reply flag set, as a RequestChannel's
    // caller needs (one more header write per message on the server).
    bool flagsReplies = false;
    // The client makes each round trip with RequestChannel::call instead of
    // UnixDomainSocket::send and recv (implies flagsReplies).
    bool throughRequestChannel = false;
};

// The library: UnixDomainSocket client, DefaultReactor server with the
// shape's idle handlers. Null when the socket buffers cannot take the
// largest record.
std::unique_ptr<RoundTripChannel> makeLibraryChannel(const RoundTripShape& shape, LibraryUse use);

// One side of a comparison and the name its counters carry.
struct Contender {
    const char* name;
    RoundTripChannel* channel;
};

// Runs blocks of round trips on every contender in turn (which goes first
// rotates) for as long as the benchmark asks, after one untimed block each.
// Reports per repetition, for every contender NAME, the median single round
// trip "NAME_ns" and its minor page faults per message "NAME_faults" (client
// thread and server process together over the timed blocks, two messages per
// round trip); and the ratios of the first contender's median to the
// second's, "ratio", and to each further one's, "ratio_NAME". With a
// `sampleLabel`, every timed round trip goes to the sample log (SampleLog)
// under that label and the contender's name.
void runInterleaved(benchmark::State& state, const std::vector<Contender>& contenders,
                    const std::string& sampleLabel);

// runInterleaved with two contenders, "ours" and "reference".
void runPaired(benchmark::State& state, RoundTripChannel& ours, RoundTripChannel& reference,
               const std::string& sampleLabel);

}  // namespace velacam::bench
