#include <dirent.h>
#include <ipc/utils/Log.h>
#include <ipc/utils/Process.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "../internal/TraceFile.h"

namespace Kestrel::ipc::utils {

namespace {
constexpr LogSite kLogSite{"Process", "ipc/utils/Process", kLogModuleCore};

// The execvp argument array: filename, then argv, then a null pointer. The
// pointers refer to the caller's strings, which outlive the exec.
std::vector<char*> execArguments(const std::string& filename,
                                 const std::vector<std::string>& argv) {
    std::vector<char*> arguments;
    arguments.reserve(argv.size() + 2);
    arguments.push_back(const_cast<char*>(filename.c_str()));
    for (const std::string& argument : argv) {
        arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    return arguments;
}
}  // namespace

Process::Process() : mPid(getpid()) {}

Process::Process(int pid) : mPid(pid) {}

Process Process::current() { return Process(getpid()); }

Process Process::create(const std::string& filename, const std::vector<std::string>& argv,
                        const std::vector<int>& /*fdsToKeep*/) {
    // Built before the fork, so that the child does not allocate.
    std::vector<char*> arguments = execArguments(filename, argv);
    const pid_t pid = fork();
    if (pid == 0) {
        IPC_LOGD("[%s] execvp filename(%s) +", __func__, filename.c_str());
        for (const std::string& argument : argv) {
            IPC_LOGD("[%s] execvp argv(%s) +", __func__, argument.c_str());
        }
        const int result = execvp(filename.c_str(), arguments.data());
        IPC_LOGD("[%s] execvp filename(%s) -", __func__, filename.c_str());
        if (result != -1) {
            IPC_FATAL("should never reach here for a child process");
        }
        IPC_LOGE("execute a file (%s) failed(%s)", filename.c_str(), strerror(errno));
        return Process(-1);
    }
    if (pid == -1) {
        IPC_LOGE("create a child process failed(%s)", strerror(errno));
        return Process(-1);
    }
    IPC_LOGD("[%s] child process PID(%d) created", __func__, pid);
    mChildren.emplace_back(pid);
    const auto child = std::find_if(mChildren.begin(), mChildren.end(),
                                    [pid](const Process& process) { return process.mPid == pid; });
    if (child == mChildren.end()) {
        IPC_FATAL("cannot find the child process");
    }
    return *child;
}

bool Process::terminate() {
    IPC_LOGD("[%s] Pid(%d)", __func__, mPid);
    if (mPid < 0) {
        IPC_LOGE("invalid process ID (%d)", mPid);
        return false;
    }
    if (kill(mPid, SIGTERM) == 0) {
        return true;
    }
    IPC_LOGE("failed to kill the process (%s)", strerror(errno));
    return false;
}

bool Process::terminateAllChildProcess() {
    bool result = true;
    auto child = mChildren.begin();
    while (child != mChildren.end()) {
        if (child->terminate()) {
            child = mChildren.erase(child);
            continue;
        }
        result = false;
        ++child;
        if (child != mChildren.end()) {
            child = mChildren.erase(child);
        }
    }
    return result;
}

void Process::removeFromObservation(int pid) {
    mChildren.remove_if([pid](const Process& child) {
        if (child.mPid != pid) {
            return false;
        }
        // NOLINTNEXTLINE(bugprone-lambda-function-name): the line names "operator()"
        IPC_LOGD("[%s] child process PID(%d) removed", __func__, pid);
        return true;
    });
}

void Process::closeOpenFileDescriptors(const std::vector<int>& fdsToKeep) {
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) {
        IPC_LOGE("open dir /proc/self/fd failed");
        return;
    }
    IPC_LOGD("[%s] (1)", __func__);
    const int ownFd = dirfd(dir);
    std::vector<int> keep(fdsToKeep);
    observe::TraceFile::instance().keepOpen(keep);
    std::sort(keep.begin(), keep.end());
    IPC_LOGD("[%s] dirfd(%d) (2)", __func__, ownFd);
    while (const dirent* entry = readdir(dir)) {
        IPC_LOGD("[%s] d_name(%s) (3)", __func__, entry->d_name);
        char* end = nullptr;
        const unsigned long fd = strtoul(entry->d_name, &end, 10);
        if (fd == 0) {
            IPC_LOGW("strtoul: no valid conversion");
        }
        if (end == entry->d_name) {
            IPC_LOGW("no conversion occurs (3-1)");
            continue;
        }
        IPC_LOGD("[%s] fd(%lu) (4)", __func__, fd);
        if (fd != 0 && fd != static_cast<unsigned long>(ownFd) &&
            !std::binary_search(keep.begin(), keep.end(), static_cast<int>(fd))) {
            IPC_LOGD("[%s] close fd(%lu) +", __func__, fd);
            if (close(static_cast<int>(fd)) == -1) {
                IPC_LOGE("close fd(%lu) failed(%s)", fd, strerror(errno));
            }
            IPC_LOGD("[%s] close fd(%lu) -", __func__, fd);
        }
        IPC_LOGD("[%s] (5)", __func__);
    }
    IPC_LOGD("[%s] (6)", __func__);
    closedir(dir);
}

}  // namespace Kestrel::ipc::utils
