#include "DemoObservation.h"

#include <errno.h>
#include <ipc/StateDump.h>
#include <ipc/Statistics.h>
#include <ipc/Tracing.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace demo {

using Kestrel::ipc::StateDump;
using Kestrel::ipc::Statistics;
using Kestrel::ipc::Tracing;

bool startObservation(const ObservationOptions& options) {
    if (options.stats) {
        Statistics::enable(true);
        setenv("VELACAM_STATS", "1", 1);
    }
    if (!options.traceFile.empty()) {
        // This process creates the file, so that it writes the array's
        // opening and closing: a file left from an earlier run goes first.
        if (unlink(options.traceFile.c_str()) != 0 && errno != ENOENT) {
            std::fprintf(stderr, "camera: cannot replace %s: %s\n", options.traceFile.c_str(),
                         std::strerror(errno));
            return false;
        }
        if (!Tracing::start(options.traceFile.c_str())) {
            std::fprintf(stderr, "camera: cannot write the trace to %s: %s\n",
                         options.traceFile.c_str(), std::strerror(errno));
            return false;
        }
        Tracing::nameProcess("camera");
        setenv("VELACAM_TRACE", options.traceFile.c_str(), 1);
    }
    std::fflush(stdout);  // before the algorithm process shares standard output
    return true;
}

void finishObservation(const ObservationOptions& options) {
    if (!options.traceFile.empty()) {
        Tracing::finish();
        std::printf("trace of both processes written to %s\n", options.traceFile.c_str());
    }
}

void printStatistics(const char* side, int socketFd, const Kestrel::ipc::DefaultReactor* reactor,
                     Kestrel::ipc::MessageLoop* loop) {
    if (!Statistics::enabled()) {
        return;
    }
    std::printf("---- %s process (pid %d): counters at the end ----\n", side,
                static_cast<int>(getpid()));
    std::fflush(stdout);  // the dumps go straight to the descriptor
    bool written = StateDump::writeConnection(STDOUT_FILENO, socketFd) == 0;
    if (reactor != nullptr) {
        written = written && StateDump::write(STDOUT_FILENO, *reactor) == 0;
    }
    if (loop != nullptr) {
        written = written && StateDump::write(STDOUT_FILENO, *loop) == 0;
    }
    if (!written) {
        std::fprintf(stderr, "%s: cannot write the counters: %s\n", side, std::strerror(errno));
    }
}

}  // namespace demo
