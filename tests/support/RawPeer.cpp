#include "support/RawPeer.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <ipc/Message.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <thread>

namespace velacam::test {

RawRecord readRecord(int socketFd, size_t dataRoom, size_t fdRoom, int flags) {
    RawRecord record{};
    record.data.resize(dataRoom);
    std::vector<cmsghdr> control(CMSG_SPACE(sizeof(int) * fdRoom) / sizeof(cmsghdr) + 1);
    iovec vector{record.data.data(), record.data.size()};
    msghdr header{};
    header.msg_iov = &vector;
    header.msg_iovlen = 1;
    header.msg_control = control.data();
    header.msg_controllen = CMSG_SPACE(sizeof(int) * fdRoom);
    record.result = ::recvmsg(socketFd, &header, flags);
    record.error = record.result < 0 ? errno : 0;
    record.flags = header.msg_flags;
    record.data.resize(record.result > 0 ? static_cast<size_t>(record.result) : 0);
    if (record.result < 0) {
        return record;
    }
    for (cmsghdr* cmsg = CMSG_FIRSTHDR(&header); cmsg != nullptr;
         cmsg = CMSG_NXTHDR(&header, cmsg)) {
        ControlMessage message{cmsg->cmsg_type, {}};
        if (cmsg->cmsg_level == SOL_SOCKET && cmsg->cmsg_type == SCM_RIGHTS) {
            const size_t count = (cmsg->cmsg_len - CMSG_LEN(0)) / sizeof(int);
            for (size_t i = 0; i < count; ++i) {
                int fd;
                std::memcpy(&fd, CMSG_DATA(cmsg) + i * sizeof(int), sizeof(fd));
                message.fds.emplace_back(fd, 0);
            }
        }
        record.controls.push_back(std::move(message));
    }
    return record;
}

ssize_t writeRecord(int socketFd, const void* data, size_t size, const std::vector<int>& fds,
                    bool withRights) {
    std::vector<cmsghdr> control(CMSG_SPACE(sizeof(int) * fds.size()) / sizeof(cmsghdr) + 1);
    iovec vector{const_cast<void*>(data), size};
    msghdr header{};
    header.msg_iov = &vector;
    header.msg_iovlen = 1;
    if (withRights) {
        header.msg_control = control.data();
        header.msg_controllen = CMSG_SPACE(sizeof(int) * fds.size());
        cmsghdr* cmsg = CMSG_FIRSTHDR(&header);
        cmsg->cmsg_len = CMSG_LEN(sizeof(int) * fds.size());
        cmsg->cmsg_level = SOL_SOCKET;
        cmsg->cmsg_type = SCM_RIGHTS;
        if (!fds.empty()) {
            std::memcpy(CMSG_DATA(cmsg), fds.data(), sizeof(int) * fds.size());
        }
    }
    return ::sendmsg(socketFd, &header, MSG_NOSIGNAL);
}

bool writeHeaderRecord(int socketFd, uint32_t id, uint32_t dataCount, uint16_t descriptorCount) {
    Kestrel::ipc::Message announced;
    announced.setHeader(id, 1, 0, dataCount, descriptorCount);
    const auto [bytes, size] = announced.header();
    return writeRecord(socketFd, bytes, size, {}) == static_cast<ssize_t>(size);
}

FileDescriptor memoryFile(const std::string& contents) {
    FileDescriptor file(::memfd_create("velacam-test", MFD_CLOEXEC), 0);
    EXPECT_GE(file.get(), 0);
    EXPECT_EQ(::pwrite(file.get(), contents.data(), contents.size(), 0),
              static_cast<ssize_t>(contents.size()));
    return file;
}

std::string contentsOf(int fd) {
    std::string text;
    char buffer[4096];
    ssize_t n;
    while ((n = ::pread(fd, buffer, sizeof(buffer), static_cast<off_t>(text.size()))) > 0) {
        text.append(buffer, static_cast<size_t>(n));
    }
    return text;
}

pid_t forkPeer(const std::function<int()>& body, unsigned limitSeconds) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::alarm(limitSeconds);
        ::_exit(body());
    }
    EXPECT_GT(pid, 0) << std::strerror(errno);
    return pid;
}

int waitPeer(pid_t pid, unsigned limitSeconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(limitSeconds);
    int status = 0;
    while (::waitpid(pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() >= deadline) {
            ADD_FAILURE() << "peer " << pid << " did not finish";
            ::kill(pid, SIGKILL);
            ::waitpid(pid, &status, 0);
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool underEmulation() {
#ifdef VELACAM_TESTS_UNDER_EMULATOR
    return true;
#else
    return false;
#endif
}

long statusKiB(const std::string& field) {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind(field + ":", 0) == 0) {
            return std::stol(line.substr(field.size() + 1));
        }
    }
    return -1;
}

}  // namespace velacam::test
