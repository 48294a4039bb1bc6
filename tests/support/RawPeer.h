// Test helpers that play the far end of a socket without the library, forked
// peers, and this process's memory figures.
#pragma once

#include <sys/types.h>
#include <sysutils/FileDescriptor.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace velacam::test {

using Kestrel::utils::sys::FileDescriptor;

struct ControlMessage {
    int type;                         // cmsg_type
    std::vector<FileDescriptor> fds;  // the descriptors of an SCM_RIGHTS message, now ours
};

struct RawRecord {
    ssize_t result;  // recvmsg's result (-1 with `error` set on failure)
    int error;
    int flags;  // msg_flags
    std::vector<uint8_t> data;
    std::vector<ControlMessage> controls;
};

// Reads one record with room for `dataRoom` bytes and `fdRoom` descriptors.
RawRecord readRecord(int socketFd, size_t dataRoom = 4096, size_t fdRoom = 16, int flags = 0);

// Sends one record, with an SCM_RIGHTS message carrying `fds` when `withRights`.
ssize_t writeRecord(int socketFd, const void* data, size_t size, const std::vector<int>& fds,
                    bool withRights = true);

// Sends only the header record of a message announcing these counts.
bool writeHeaderRecord(int socketFd, uint32_t id, uint32_t dataCount, uint16_t descriptorCount);

// A new anonymous file holding `contents`, and what such a file holds.
FileDescriptor memoryFile(const std::string& contents = "");
std::string contentsOf(int fd);

// A child that leaves with _exit(body()), killed after `limitSeconds`.
pid_t forkPeer(const std::function<int()>& body, unsigned limitSeconds = 20);

// Waits for `pid` (killing it after `limitSeconds`); its exit status, or -1.
int waitPeer(pid_t pid, unsigned limitSeconds = 20);

// True in the cross build, whose suites run under qemu-user.
bool underEmulation();

// A field of /proc/self/status in KiB ("VmRSS", "VmHWM", "VmSize"), or -1.
long statusKiB(const std::string& field);

}  // namespace velacam::test
