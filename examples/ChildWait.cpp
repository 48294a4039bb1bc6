#include "ChildWait.h"

#include <signal.h>
#include <sys/wait.h>

#include <thread>

namespace demo {

std::optional<int> waitForChild(pid_t pid, std::chrono::steady_clock::duration limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    int status = 0;
    while (std::chrono::steady_clock::now() < deadline) {
        const pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid) {
            return status;
        }
        if (done < 0) {
            return std::nullopt;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    return std::nullopt;
}

}  // namespace demo
