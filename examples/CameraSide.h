// The camera process of the demo.
//
// Makes the socket pair, starts the algorithm process as a child of its own
// program, and sends requests one at a time, each carrying shared-memory
// buffers as descriptors. Replies are received on a DefaultReactor thread and
// matched to their requests through CBRegistry callbacks. At the end the child
// is terminated and reaped, and the run is summed up in a small table.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace demo {

struct DemoOptions {
    size_t requests = 2000;
    size_t bufferBytes = 4096;
    size_t fdsPerRequest = 1;
    std::string program;  // this program, started again as the algorithm process
};

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
