// The demo: a camera process and an algorithm process exchanging requests that
// carry shared-memory buffers. Run it through scripts/demo, or directly:
//
//   velacam_demo [--requests N] [--buffer-size BYTES] [--fds-per-request K]
//                [--kill-algorithm-after N | --camera-dies-after N]
//
// --kill-algorithm-after N: the camera sends SIGKILL to the algorithm process
// after N requests; the run stops at once, reports the lost requests and
// exits 1. --camera-dies-after N: the camera process ends abruptly after N
// requests; the algorithm process must notice and exit 0 by itself, which
// this program (the camera's parent) checks.
//
// Debug logging follows the property "vendor.debug.ipc.framework.log", read
// when the library is loaded (scripts/demo --verbose sets it).
#include <ipc/utils/Process.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include "AlgorithmSide.h"
#include "CameraDeathDrill.h"
#include "CameraSide.h"

namespace {

void usage() {
    std::fprintf(stderr,
                 "usage: velacam_demo [--requests N] [--buffer-size BYTES] "
                 "[--fds-per-request K]\n"
                 "                    [--kill-algorithm-after N | --camera-dies-after N]\n");
}

bool parseSize(const char* text, size_t* out) {
    char* end = nullptr;
    const unsigned long long value = std::strtoull(text, &end, 10);
    if (end == text || *end != '\0') {
        return false;
    }
    *out = static_cast<size_t>(value);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    demo::DemoOptions options;
    options.program = "/proc/self/exe";
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        size_t number = 0;
        if (value == nullptr || !parseSize(value, &number)) {
            usage();
            return 2;
        }
        ++i;
        if (arg == "--algorithm-fd") {
            // The algorithm process: keep the socket end and standard output and
            // error, close everything else inherited from the camera process.
            const int fd = static_cast<int>(number);
            Kestrel::ipc::utils::Process::closeOpenFileDescriptors({1, 2, fd});
            return demo::AlgorithmSide(fd).run();
        } else if (arg == "--requests") {
            options.requests = number;
        } else if (arg == "--buffer-size") {
            options.bufferBytes = number;
        } else if (arg == "--fds-per-request") {
            options.fdsPerRequest = number;
        } else if (arg == "--kill-algorithm-after") {
            options.killAlgorithmAfter = number;
        } else if (arg == "--camera-dies-after") {
            options.cameraDiesAfter = number;
        } else {
            usage();
            return 2;
        }
    }
    if (options.bufferBytes == 0 || options.bufferBytes % 4 != 0) {
        std::fprintf(stderr, "--buffer-size must be a positive multiple of 4\n");
        return 2;
    }
    if (options.killAlgorithmAfter && options.cameraDiesAfter) {
        std::fprintf(stderr, "--kill-algorithm-after and --camera-dies-after exclude each other\n");
        return 2;
    }
    const std::optional<size_t> death =
            options.killAlgorithmAfter ? options.killAlgorithmAfter : options.cameraDiesAfter;
    if (death && *death >= options.requests) {
        std::fprintf(stderr, "the peer must die before the last request: N below --requests\n");
        return 2;
    }
    std::printf("velacam demo: %zu requests, %zu buffer(s) of %zu bytes each\n", options.requests,
                options.fdsPerRequest, options.bufferBytes);
    if (options.cameraDiesAfter) {
        return demo::CameraDeathDrill(options).run();
    }
    return demo::CameraSide(options).run();
}
