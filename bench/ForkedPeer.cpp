#include "ForkedPeer.h"

#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

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

long ForkedPeer::minorFaults() const {
    if (mPid <= 0) {
        return -1;
    }
    const std::string path = "/proc/" + std::to_string(mPid) + "/stat";
    FILE* file = std::fopen(path.c_str(), "re");
    if (file == nullptr) {
        return -1;
    }
    char line[1024];
    const bool read = std::fgets(line, sizeof(line), file) != nullptr;
    std::fclose(file);
    // The command name (field 2) is in parentheses and may hold spaces; the
    // fields after it are state, ppid, pgrp, session, tty_nr, tpgid, flags,
    // then minflt.
    const char* end = read ? std::strrchr(line, ')') : nullptr;
    long faults = -1;
    if (end == nullptr || std::sscanf(end + 1, " %*c %*d %*d %*d %*d %*d %*u %ld", &faults) != 1) {
        return -1;
    }
    return faults;
}

}  // namespace velacam::bench
