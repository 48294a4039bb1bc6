// The demo: a camera process and an algorithm process exchanging requests that
// carry shared-memory buffers. Run it through scripts/demo, or directly:
//
//   velacam_demo [--requests N] [--buffer-size BYTES] [--fds-per-request K]
//                [--verbose] [--kill-algorithm-after N | --camera-dies-after N]
//                [--trace FILE] [--stats]
//
// The options and their ranges are in DemoCommandLine.cpp; anything out of
// range is refused with exit status 2 before a process starts.
// --kill-algorithm-after N: the camera sends SIGKILL to the algorithm process
// after N requests; the run stops at once, reports the lost requests and
// exits 1. --camera-dies-after N: the camera process ends abruptly after N
// requests; the algorithm process must notice and exit 0 by itself, which
// this program (the camera's parent) checks. --trace FILE and --stats: see
// DemoObservation.h.
//
// A correct run prints its table on standard output and nothing on standard
// error. Library lines above errors follow VELACAM_LOG_LEVEL; debug lines also
// need the property "vendor.debug.ipc.framework.log". --verbose sets both: the
// property is read when the library is loaded, so the program starts itself
// again with them in its environment.
#include <ipc/utils/Log.h>
#include <ipc/utils/Process.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include "AlgorithmSide.h"
#include "CameraDeathDrill.h"
#include "CameraSide.h"
#include "DemoCommandLine.h"

int main(int argc, char** argv) {
    std::string error;
    std::optional<demo::DemoCommandLine> line = demo::parseDemoCommandLine(argc, argv, &error);
    if (!line) {
        std::fprintf(stderr, "velacam_demo: %s\n%s", error.c_str(), demo::demoUsage());
        return 2;
    }
    if (line->helpWanted) {
        std::fputs(demo::demoUsage(), stdout);
        return 0;
    }
    if (line->verbose && (Kestrel::ipc::utils::LogSetting::logLevel() < 1 ||
                          Kestrel::Utils::ULog::ULogger::sDetailsLevel < 5)) {
        setenv("VENDOR_DEBUG_IPC_FRAMEWORK_LOG", "1", 1);
        setenv("vendor.debug.ipc.framework.log", "1", 1);
        setenv("VELACAM_LOG_LEVEL", "5", 1);
        execv("/proc/self/exe", argv);
        std::fprintf(stderr, "velacam_demo: --verbose: cannot start again: %s\n",
                     std::strerror(errno));
        return 1;
    }
    if (line->algorithmFd) {
        // The algorithm process: keep the socket end and standard output and
        // error, close everything else inherited from the camera process.
        const int fd = *line->algorithmFd;
        Kestrel::ipc::utils::Process::closeOpenFileDescriptors({1, 2, fd});
        return demo::AlgorithmSide(fd).run();
    }
    demo::DemoOptions& options = line->options;
    options.program = "/proc/self/exe";
    std::printf("velacam demo: %zu requests, %zu buffer(s) of %zu bytes each\n", options.requests,
                options.fdsPerRequest, options.bufferBytes);
    if (options.cameraDiesAfter) {
        return demo::CameraDeathDrill(options).run();
    }
    return demo::CameraSide(options).run();
}
