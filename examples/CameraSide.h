// The camera process of the demo.
//
// Makes the socket pair, starts the algorithm process as a child of its own
// program, and sends requests one at a time, each carrying shared-memory
// buffers as descriptors, through a RequestChannel: each request waits at
// most 5 s for its reply. At the end the child is terminated and reaped, and
// the run is summed up in a small table.
//
// When the algorithm process dies, its hang-up fails the waiting call at once
// (instead of after the reply time-out): the run stops,
// the requests that got no reply are reported as lost, and the exit status is
// non-zero. Two options make a peer die on purpose: killAlgorithmAfter, and
// cameraDiesAfter, where this process ends abruptly and leaves the algorithm
// process to notice by itself (see CameraDeathDrill).
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "DemoObservation.h"

namespace demo {

struct DemoOptions {
    size_t requests = 2000;
    size_t bufferBytes = 4096;
    size_t fdsPerRequest = 1;
    std::string program;  // this program, started again as the algorithm process
    // Sends SIGKILL to the algorithm process once this many replies came back.
    std::optional<size_t> killAlgorithmAfter;
    // Ends this process with _exit(kCameraDiedOnPurpose) once this many
    // replies came back, leaving the algorithm process running.
    std::optional<size_t> cameraDiesAfter;
    // Where the algorithm's pid is written (4 bytes) once it is started; -1
    // for nowhere.
    int algorithmPidFd = -1;
    ObservationOptions observation;  // --trace FILE, --stats
};

// The exit status of a camera process that ended on purpose (cameraDiesAfter).
inline constexpr int kCameraDiedOnPurpose = 3;

class CameraSide {
  public:
    explicit CameraSide(DemoOptions options) : mOptions(std::move(options)) {}

    // Runs the whole demo; returns the process exit status (0 when every
    // buffer came back transformed and no descriptor leaked).
    int run();

  private:
    DemoOptions mOptions;
};

}  // namespace demo
