// Round trips across two processes, the library against the raw system-call
// floor, measured in pairs (RoundTripChannel): every shape of
// RoundTripSetup, free and pinned to one CPU, with logging as on a device;
// and once with the host's default logging (standard error sent to
// /dev/null for the run).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

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

void runAgainstFloor(benchmark::State& state, bool hostLogging) {
    const RoundTripShape shape(state);
    CpuPinning pinning(shape.pinned);
    if (!pinning.ok()) {
        state.SkipWithError("cannot pin to one CPU");
        return;
    }
    const auto library = makeLibraryChannel(shape, hostLogging);
    const auto floor = makeFloorChannel(shape);
    if (!library || !floor) {
        state.SkipWithError("cannot set up the channels");
        return;
    }
    runPaired(state, *library, *floor);
}

void Library_vs_Floor(benchmark::State& state) { runAgainstFloor(state, false); }

void LibraryHostLogging_vs_Floor(benchmark::State& state) {
    QuietStderr quiet;
    runAgainstFloor(state, true);
}

BENCHMARK(Library_vs_Floor)->Apply(addRoundTripCases);
BENCHMARK(LibraryHostLogging_vs_Floor)->Apply(addPeerCases);

}  // namespace
}  // namespace velacam::bench
