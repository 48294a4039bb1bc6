// Test helpers that act as the far end of a socket without the library: raw
// sendmsg/recvmsg of single records, descriptors to send, and forked peers.
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

// Reads one record with recvmsg(2), with room for `dataRoom` bytes and
// `fdRoom` descriptors; `flags` as recvmsg takes them (MSG_DONTWAIT, say).
RawRecord readRecord(int socketFd, size_t dataRoom = 4096, size_t fdRoom = 16, int flags = 0);

// Sends one record with sendmsg(2), attaching an SCM_RIGHTS message carrying
// `fds` (possibly none) when `withRights`, nothing otherwise. Returns
// sendmsg's result.
ssize_t writeRecord(int socketFd, const void* data, size_t size, const std::vector<int>& fds,
                    bool withRights = true);

// Sends, as writeRecord does, the header record of a message announcing
// `dataCount` data bytes and `descriptorCount` descriptors, and nothing after
// it. True when the whole header went.
bool writeHeaderRecord(int socketFd, uint32_t id, uint32_t dataCount, uint16_t descriptorCount);

// A new anonymous file holding `contents`, to be sent as a descriptor and
// recognised afterwards (sameFile, or by its contents).
FileDescriptor memoryFile(const std::string& contents = "");

// The contents of the file open as `fd`, read from offset 0.
std::string contentsOf(int fd);

// Forks a child that runs `body` and leaves with _exit(body()); the child
// never returns into the test framework and is killed by SIGALRM after
// `limitSeconds`. Returns the child's pid.
pid_t forkPeer(const std::function<int()>& body, unsigned limitSeconds = 20);

// Waits for `pid` (at most `limitSeconds`, then kills it) and returns its exit
// status, or -1 when it did not exit normally.
int waitPeer(pid_t pid, unsigned limitSeconds = 20);

// True in the cross build, whose suites run under qemu-user, whose
// recvmsg neither drops the descriptors nobody asked for nor sets MSG_CTRUNC
// as the kernel does.
bool underEmulation();

}  // namespace velacam::test
