#include "ForkedPeer.h"

#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

namespace velacam::bench {

namespace {
constexpr int kJoinTimeoutMs = 10000;
}  // namespace

ForkedPeer::ForkedPeer(const std::function<int()>& body) {
    mPid = fork();
    if (mPid == 0) {
        _exit(body());
    }
}

ForkedPeer::~ForkedPeer() {
    if (mPid > 0) {
        (void)join();
    }
}

bool ForkedPeer::join() {
    if (mPid <= 0) {
        return false;
    }
    const pid_t pid = mPid;
    mPid = -1;
    // A pidfd turns the child's exit into a readable descriptor, so the wait
    // can be bounded without polling waitpid().
    const int pidFd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    bool exited = true;
    if (pidFd >= 0) {
        pollfd entry{pidFd, POLLIN, 0};
        int ready;
        do {
            ready = poll(&entry, 1, kJoinTimeoutMs);
        } while (ready < 0 && errno == EINTR);
        exited = ready == 1;
        close(pidFd);
    }
    if (!exited) {
        kill(pid, SIGKILL);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return exited && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace velacam::bench
