// The drill of a camera process that dies mid-run.
//
// Runs the camera role in a child process that ends abruptly after a number of
// requests (DemoOptions::cameraDiesAfter), without terminating the algorithm
// process it started, and checks that the algorithm process notices the
// hang-up on its socket and exits with status 0 by itself.
//
// This process makes itself the child subreaper of its descendants first, so
// that the algorithm process, orphaned when the camera process ends, becomes
// its child and can be waited for; the camera process reports the
// algorithm's pid through a pipe as soon as it has started it.
#pragma once

#include "CameraSide.h"

namespace demo {

class CameraDeathDrill {
  public:
    explicit CameraDeathDrill(DemoOptions options) : mOptions(std::move(options)) {}

    // Runs the drill; returns the process exit status: 0 when the algorithm
    // process exited with status 0 on its own within five seconds of the
    // camera process's end.
    int run();

  private:
    DemoOptions mOptions;
};

}  // namespace demo
