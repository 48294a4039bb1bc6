#include "support/HostilePeer.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

namespace velacam::fuzz {

namespace {

using Kestrel::utils::sys::FileDescriptor;

constexpr size_t kMaxHeaderRecord = 32;
constexpr size_t kMaxHeaderFds = 7;
constexpr size_t kSmallPayloadFds = 8;
constexpr uint8_t kManyPayloadFds = 0xF0;
constexpr size_t kFewestOfMany = 245;  // up to 260, around the kernel's 253
constexpr size_t kDataCountOffset = 12;

// How many descriptors the payload record carries, for the input's byte.
size_t payloadDescriptorCount(uint8_t byte) {
    if (byte < kManyPayloadFds) {
        return byte % kSmallPayloadFds;
    }
    return kFewestOfMany + (byte - kManyPayloadFds);
}

struct Shape {
    explicit Shape(uint8_t bits)
        : records(bits & 3),
          closes((bits & 4) != 0),
          headerRights((bits & 8) != 0),
          payloadRights((bits & 16) != 0),
          payloadCredentials((bits & 32) != 0),
          passCredentials((bits & 64) != 0),
          timestamps((bits & 128) != 0) {}

    int records;  // 0 to 3: header, payload, payload again
    bool closes;
    bool headerRights;
    bool payloadRights;
    bool payloadCredentials;
    bool passCredentials;
    bool timestamps;
};

// Reduces the dataCount field of a header record modulo kMaxDeclaredData + 1,
// touching only the bytes of the field that the record has. The result is
// never larger than the value was, so it fits in those bytes.
void boundDeclaredData(std::vector<uint8_t>& header) {
    if (header.size() <= kDataCountOffset) {
        return;
    }
    const size_t present = std::min(header.size() - kDataCountOffset, sizeof(uint32_t));
    uint32_t count = 0;
    std::memcpy(&count, header.data() + kDataCountOffset, present);
    count %= kMaxDeclaredData + 1;
    std::memcpy(header.data() + kDataCountOffset, &count, present);
}

int openDevNull() {
    const int fd = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        std::perror("open /dev/null");
        std::abort();
    }
    return fd;
}

// Opened at load, before any input takes its descriptor snapshot.
const int sDevNull = openDevNull();

// What a record carries: `count` references to /dev/null. One number
// repeated is enough (the kernel installs a new descriptor for each entry)
// and saves the peer a dup and a close per descriptor: system calls are what
// an input costs most on these machines.
std::vector<int> devNullTimes(size_t count) { return std::vector<int>(count, sDevNull); }

// Sends one record without waiting. Failures (a full queue, too many
// descriptors for the kernel) are part of the game: the record is then
// simply not there.
void writeRecord(int fd, const std::vector<uint8_t>& bytes, bool withRights,
                 const std::vector<int>& fds, bool withCredentials) {
    const size_t rightsSpace = withRights ? CMSG_SPACE(sizeof(int) * fds.size()) : 0;
    const size_t credentialsSpace = withCredentials ? CMSG_SPACE(sizeof(ucred)) : 0;
    std::vector<cmsghdr> control((rightsSpace + credentialsSpace) / sizeof(cmsghdr) + 1);
    iovec vector{const_cast<uint8_t*>(bytes.data()), bytes.size()};
    msghdr header{};
    header.msg_iov = &vector;
    header.msg_iovlen = 1;
    if (rightsSpace + credentialsSpace != 0) {
        header.msg_control = control.data();
        header.msg_controllen = rightsSpace + credentialsSpace;
        cmsghdr* cmsg = CMSG_FIRSTHDR(&header);
        if (withCredentials) {
            const ucred own{::getpid(), ::getuid(), ::getgid()};
            cmsg->cmsg_len = CMSG_LEN(sizeof(own));
            cmsg->cmsg_level = SOL_SOCKET;
            cmsg->cmsg_type = SCM_CREDENTIALS;
            std::memcpy(CMSG_DATA(cmsg), &own, sizeof(own));
            cmsg = CMSG_NXTHDR(&header, cmsg);
        }
        if (withRights) {
            cmsg->cmsg_len = CMSG_LEN(sizeof(int) * fds.size());
            cmsg->cmsg_level = SOL_SOCKET;
            cmsg->cmsg_type = SCM_RIGHTS;
            if (!fds.empty()) {
                std::memcpy(CMSG_DATA(cmsg), fds.data(), sizeof(int) * fds.size());
            }
        }
    }
    (void)::sendmsg(fd, &header, MSG_DONTWAIT | MSG_NOSIGNAL);
}

void enable(int fd, int option) {
    const int on = 1;
    if (::setsockopt(fd, SOL_SOCKET, option, &on, sizeof(on)) != 0) {
        std::perror("setsockopt");
        std::abort();
    }
}

}  // namespace

int devNull() { return sDevNull; }

PlayedPeer playHostilePeer(FuzzInput& input, Stalling stalling) {
    const Shape shape(input.take<uint8_t>());
    std::vector<uint8_t> header = input.bytes(input.take<uint8_t>() % (kMaxHeaderRecord + 1));
    const std::vector<int> headerFds = devNullTimes(input.take<uint8_t>() % (kMaxHeaderFds + 1));
    const std::vector<int> payloadFds = devNullTimes(payloadDescriptorCount(input.take<uint8_t>()));
    const std::vector<uint8_t> payload = input.bytes(input.take<uint16_t>());
    const bool lies = (input.take<uint8_t>() & 1) != 0;
    if (!lies) {
        boundDeclaredData(header);
    }

    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) != 0) {
        std::perror("socketpair");
        std::abort();
    }
    FileDescriptor receiver(ends[0], 0);
    FileDescriptor peer(ends[1], 0);
    if (shape.passCredentials) {
        enable(receiver.get(), SO_PASSCRED);
    }
    if (shape.timestamps) {
        enable(receiver.get(), SO_TIMESTAMP);
    }

    if (shape.records >= 1) {
        writeRecord(peer.get(), header, shape.headerRights, headerFds, false);
    }
    for (int i = 2; i <= shape.records; ++i) {
        writeRecord(peer.get(), payload, shape.payloadRights, payloadFds, shape.payloadCredentials);
    }
    // A peer that stays open may stall in more ways than one: its header may
    // be refused by the kernel and its payload then read as a header.
    if (shape.closes || stalling == Stalling::kNever) {
        peer = FileDescriptor();
    }
    return PlayedPeer{std::move(receiver), std::move(peer),
                      shape.records >= 2 ? payload.size() : 0};
}

std::set<int> openDescriptors() {
    std::set<int> fds;
    DIR* dir = ::opendir("/proc/self/fd");
    if (dir == nullptr) {
        std::perror("opendir /proc/self/fd");
        std::abort();
    }
    const int own = ::dirfd(dir);
    while (const dirent* entry = ::readdir(dir)) {
        if (entry->d_name[0] == '.') {
            continue;
        }
        const int fd = std::atoi(entry->d_name);
        if (fd != own) {
            fds.insert(fd);
        }
    }
    ::closedir(dir);
    return fds;
}

void expectSameDescriptors(const std::set<int>& before, const std::set<int>& after) {
    if (before == after) {
        return;
    }
    for (int fd : after) {
        if (before.count(fd) == 0) {
            std::fprintf(stderr, "descriptor %d left open\n", fd);
        }
    }
    for (int fd : before) {
        if (after.count(fd) == 0) {
            std::fprintf(stderr, "descriptor %d closed that was open before\n", fd);
        }
    }
    std::abort();
}

}  // namespace velacam::fuzz
