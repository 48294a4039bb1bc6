#include "CameraDeathDrill.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <sysutils/FileDescriptor.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <thread>

#include "ChildWait.h"

namespace demo {

namespace {

using Clock = std::chrono::steady_clock;
using Kestrel::utils::sys::FileDescriptor;

constexpr auto kAlgorithmGrace = std::chrono::seconds(5);
constexpr auto kCameraLimit = std::chrono::seconds(120);

std::string describe(const std::optional<int>& status) {
    if (!status) {
        return "did not end in time (killed)";
    }
    if (WIFSIGNALED(*status)) {
        return std::string("killed by ") + strsignal(WTERMSIG(*status));
    }
    return "exit status " + std::to_string(WEXITSTATUS(*status));
}

}  // namespace

int CameraDeathDrill::run() {
    if (prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) {
        std::fprintf(stderr, "cannot become the subreaper: %s\n", std::strerror(errno));
        return 1;
    }
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        std::fprintf(stderr, "cannot make a pipe: %s\n", std::strerror(errno));
        return 1;
    }
    FileDescriptor pidRead(ends[0], 0);
    FileDescriptor pidWrite(ends[1], 0);

    std::fflush(stdout);
    const pid_t camera = fork();
    if (camera < 0) {
        std::fprintf(stderr, "cannot fork the camera process: %s\n", std::strerror(errno));
        return 1;
    }
    if (camera == 0) {
        DemoOptions options = mOptions;
        options.algorithmPidFd = pidWrite.get();
        _exit(CameraSide(options).run());
    }
    pidWrite = FileDescriptor();

    int32_t algorithm = -1;
    const bool started = read(pidRead.get(), &algorithm, sizeof(algorithm)) == sizeof(algorithm);
    const std::optional<int> cameraStatus = waitForChild(camera, kCameraLimit);
    const auto cameraEnded = Clock::now();
    if (!started) {
        std::printf(
                "\nverdict: FAILED: the camera process (%s) never started the algorithm "
                "process\n",
                describe(cameraStatus).c_str());
        return 1;
    }
    // Orphaned by the camera's end, the algorithm process is this process's
    // child now.
    const std::optional<int> algorithmStatus = waitForChild(algorithm, kAlgorithmGrace);
    const double afterMs =
            std::chrono::duration<double, std::milli>(Clock::now() - cameraEnded).count();

    const bool cameraDiedOnPurpose = cameraStatus && WIFEXITED(*cameraStatus) &&
                                     WEXITSTATUS(*cameraStatus) == kCameraDiedOnPurpose;
    const bool algorithmClean =
            algorithmStatus && WIFEXITED(*algorithmStatus) && WEXITSTATUS(*algorithmStatus) == 0;
    std::printf("\n");
    std::printf("  %-24s ended abruptly after %zu requests (%s)\n", "camera process",
                *mOptions.cameraDiesAfter, describe(cameraStatus).c_str());
    std::printf("  %-24s %s, %.1f ms after the camera ended\n", "algorithm process",
                algorithmClean ? "noticed and exited by itself (exit status 0)"
                               : describe(algorithmStatus).c_str(),
                afterMs);
    if (cameraDiedOnPurpose && algorithmClean) {
        std::printf(
                "\nverdict: the algorithm process noticed the camera's death and exited "
                "cleanly\n");
        std::fflush(stdout);
        return 0;
    }
    std::printf("\nverdict: FAILED: %s\n",
                cameraDiedOnPurpose ? "the algorithm process did not exit cleanly by itself"
                                    : "the camera process did not end as planned");
    std::fflush(stdout);
    return 1;
}

}  // namespace demo
