// Round trips across two processes, the library against the two raw
// system-call floors (a call per record, and one batched call per message),
// measured side by side (RoundTripChannel): every shape of RoundTripSetup,
// free and pinned to one CPU, with logging as on a device; large messages,
// whose data both library sides copy out once; the 64-byte case once more
// with the wait for a payload record unbounded (what the default bound of
// 1 s costs); and once with the host's default logging (standard error sent
// to /dev/null for the run), against the per-record floor only. The 64-byte
// case without descriptors or idle handlers records its single round trips
// for the latency chart. The 64-byte case is also measured against the floor
// that sends a message with one call but reads it a record at a time, the
// header first: the fastest a receiver can be that, like the library's,
// learns the sizes from the header. Last, the 64-byte cases with 0 and 1
// descriptor are measured against the batched floor carrying the library's
// default guards (a bounded wait, room for a record of any size, an exit
// descriptor polled beside the socket): what is left between the two is the
// library's own work. And the 64-byte cases once more through a
// RequestChannel, against the library's own round trip: what the channel's
// matching of replies to calls costs.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "CpuPinning.h"
#include "RoundTripChannel.h"
#include "RoundTripSetup.h"

namespace velacam::bench {
namespace {

// Standard error goes to /dev/null while the object lives.
class QuietStderr {
  public:
    QuietStderr() : mSaved(dup(STDERR_FILENO)) {
        const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (null >= 0) {
            dup2(null, STDERR_FILENO);
            close(null);
        }
    }
    ~QuietStderr() {
        if (mSaved >= 0) {
            dup2(mSaved, STDERR_FILENO);
            close(mSaved);
        }
    }
    QuietStderr(const QuietStderr&) = delete;
    QuietStderr& operator=(const QuietStderr&) = delete;

  private:
    int mSaved;
};

// The library against a floor and the batched floor: counters ours_*,
// reference_* (`reference`, "ratio") and batched_* ("ratio_batched"). With
// `charted`, the 64-byte case without descriptors or idle handlers logs its
// single round trips for the latency chart (one benchmark only, so that the
// chart's curves each come from one way of using the library).
void runAgainstFloors(benchmark::State& state, LibraryUse use, FloorCalls reference, bool charted) {
    const RoundTripShape shape(state);
    CpuPinning pinning(shape.pinned);
    if (!pinning.ok()) {
        state.SkipWithError("cannot pin to one CPU");
        return;
    }
    const auto library = makeLibraryChannel(shape, use);
    const auto floor = makeFloorChannel(shape, reference);
    const auto batched = makeFloorChannel(shape, FloorCalls::kBatched);
    if (!library || !floor || !batched) {
        state.SkipWithError("cannot set up the channels (socket buffers too small?)");
        return;
    }
    const bool logged = charted && shape.payload == 64 && shape.fds == 0 && shape.idle == 0;
    const std::string label =
            logged ? "round trip 64 B/pinned:" + std::to_string(shape.pinned ? 1 : 0) : "";
    runInterleaved(
            state,
            {{"ours", library.get()}, {"reference", floor.get()}, {"batched", batched.get()}},
            label);
}

void Library_vs_Floor(benchmark::State& state) {
    runAgainstFloors(state, {}, FloorCalls::kPerRecord, true);
}

void Library_vs_OneSendFloor(benchmark::State& state) {
    runAgainstFloors(state, {}, FloorCalls::kOneSend, false);
}

void Library_vs_GuardedFloor(benchmark::State& state) {
    runAgainstFloors(state, {}, FloorCalls::kBatchedGuarded, false);
}

void LargeMessage_vs_Floor(benchmark::State& state) {
    LibraryUse use;
    use.readsPayload = true;
    runAgainstFloors(state, use, FloorCalls::kPerRecord, false);
}

void LibraryUnboundedWait_vs_Floor(benchmark::State& state) {
    LibraryUse use;
    use.unboundedPayloadWait = true;
    runAgainstFloors(state, use, FloorCalls::kPerRecord, false);
}

void LibraryHostLogging_vs_Floor(benchmark::State& state) {
    QuietStderr quiet;
    const RoundTripShape shape(state);
    CpuPinning pinning(shape.pinned);
    if (!pinning.ok()) {
        state.SkipWithError("cannot pin to one CPU");
        return;
    }
    LibraryUse use;
    use.hostLogging = true;
    const auto library = makeLibraryChannel(shape, use);
    const auto floor = makeFloorChannel(shape, FloorCalls::kPerRecord);
    if (!library || !floor) {
        state.SkipWithError("cannot set up the channels");
        return;
    }
    runPaired(state, *library, *floor, "");
}

// What RequestChannel adds to the library's round trip: the same client
// and server, the client calling through the channel or sending and
// receiving on its socket itself; the server flags its echo as the reply for
// both.
void RequestChannel_vs_Library(benchmark::State& state) {
    const RoundTripShape shape(state);
    CpuPinning pinning(shape.pinned);
    if (!pinning.ok()) {
        state.SkipWithError("cannot pin to one CPU");
        return;
    }
    LibraryUse raw;
    raw.flagsReplies = true;
    LibraryUse calls = raw;
    calls.throughRequestChannel = true;
    const auto channel = makeLibraryChannel(shape, calls);
    const auto library = makeLibraryChannel(shape, raw);
    if (!channel || !library) {
        state.SkipWithError("cannot set up the channels");
        return;
    }
    runPaired(state, *channel, *library, "");
}

BENCHMARK(Library_vs_Floor)->Apply(addRoundTripCases);
BENCHMARK(Library_vs_OneSendFloor)->Apply(addPeerCases);
BENCHMARK(Library_vs_GuardedFloor)->Apply(addTargetCases);
BENCHMARK(LargeMessage_vs_Floor)->Apply(addLargeCases);
BENCHMARK(LibraryUnboundedWait_vs_Floor)->Apply(addPeerCases);
BENCHMARK(LibraryHostLogging_vs_Floor)->Apply(addPeerCases);
BENCHMARK(RequestChannel_vs_Library)->Apply(addTargetCases);

}  // namespace
}  // namespace velacam::bench
