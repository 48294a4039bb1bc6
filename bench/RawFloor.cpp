#include "RawFloor.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "BatchedFloor.h"

namespace velacam::bench::raw {

namespace {

// The largest control buffer a record can need.
constexpr size_t kControlSpace = CMSG_SPACE(sizeof(int) * kMaxFds);

// Both records of a message, the header first.
bool sendMessage(int socket, SendCalls sends, const uint8_t* header, const void* data,
                 size_t dataSize, const int* fds, size_t fdCount) {
    if (sends == SendCalls::kOne) {
        return sendPair(socket, header, data, dataSize, fds, fdCount);
    }
    return sendRecord(socket, header, kHeaderSize, nullptr, 0) &&
           sendRecord(socket, data, dataSize, fds, fdCount);
}

}  // namespace

void closeAll(const int* fds, int count) {
    for (int i = 0; i < count; ++i) {
        close(fds[i]);
    }
}

void packHeader(const Header& header, uint8_t* bytes) {
    std::memset(bytes, 0, kHeaderSize);
    std::memcpy(bytes + 0, &header.id, 4);
    std::memcpy(bytes + 4, &header.type, 4);
    std::memcpy(bytes + 8, &header.flags, 4);
    std::memcpy(bytes + 12, &header.dataCount, 4);
    std::memcpy(bytes + 16, &header.fdCount, 2);
}

Header unpackHeader(const uint8_t* bytes) {
    Header header;
    std::memcpy(&header.id, bytes + 0, 4);
    std::memcpy(&header.type, bytes + 4, 4);
    std::memcpy(&header.flags, bytes + 8, 4);
    std::memcpy(&header.dataCount, bytes + 12, 4);
    std::memcpy(&header.fdCount, bytes + 16, 2);
    return header;
}

bool sendRecord(int socket, const void* data, size_t size, const int* fds, size_t fdCount) {
    alignas(cmsghdr) uint8_t control[kControlSpace];
    const size_t fdBytes = sizeof(int) * fdCount;
    const size_t space = CMSG_SPACE(fdBytes);
    std::memset(control, 0, space);
    iovec io{const_cast<void*>(data), size};
    msghdr header{};
    header.msg_iov = &io;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = space;
    cmsghdr* cmsg = CMSG_FIRSTHDR(&header);
    cmsg->cmsg_len = CMSG_LEN(fdBytes);
    cmsg->cmsg_level = SOL_SOCKET;
    cmsg->cmsg_type = SCM_RIGHTS;
    if (fdBytes != 0) {
        std::memcpy(CMSG_DATA(cmsg), fds, fdBytes);
    }
    ssize_t sent;
    do {
        // As the library does: a vanished peer is an error, not SIGPIPE.
        sent = sendmsg(socket, &header, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent >= 0;
}

int takeDescriptors(msghdr& header, int* fds, size_t room) {
    int count = 0;
    for (cmsghdr* cmsg = CMSG_FIRSTHDR(&header); cmsg != nullptr;
         cmsg = CMSG_NXTHDR(&header, cmsg)) {
        if (cmsg->cmsg_level != SOL_SOCKET || cmsg->cmsg_type != SCM_RIGHTS) {
            continue;
        }
        const size_t arrived = (cmsg->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < arrived; ++i) {
            int fd;
            std::memcpy(&fd, CMSG_DATA(cmsg) + i * sizeof(int), sizeof(int));
            if (static_cast<size_t>(count) < room) {
                fds[count++] = fd;
            } else {
                close(fd);
            }
        }
    }
    return count;
}

int receiveRecord(int socket, void* data, size_t size, int* fds, size_t fdCount) {
    alignas(cmsghdr) uint8_t control[kControlSpace];
    const size_t space = CMSG_SPACE(sizeof(int) * fdCount);
    std::memset(control, 0, space);
    iovec io{data, size};
    msghdr header{};
    header.msg_iov = &io;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = space;
    ssize_t received;
    do {
        received = recvmsg(socket, &header, 0);
    } while (received < 0 && errno == EINTR);
    if (received < 0) {
        return -1;
    }
    return takeDescriptors(header, fds, fdCount);
}

bool roundTrip(int socket, SendCalls sends, const uint8_t* header, const uint8_t* data,
               size_t dataSize, const int* fds, size_t fdCount, uint8_t* replyData) {
    if (!sendMessage(socket, sends, header, data, dataSize, fds, fdCount)) {
        return false;
    }
    uint8_t replyHeader[kHeaderSize];
    if (receiveRecord(socket, replyHeader, kHeaderSize, nullptr, 0) < 0) {
        return false;
    }
    const Header reply = unpackHeader(replyHeader);
    if (reply.dataCount > kMaxData || reply.fdCount > kMaxFds) {
        return false;
    }
    int replyFds[kMaxFds];
    const int received = receiveRecord(socket, replyData, reply.dataCount, replyFds, reply.fdCount);
    if (received < 0) {
        return false;
    }
    closeAll(replyFds, received);
    return static_cast<size_t>(received) == fdCount;
}

ServerWait::ServerWait(int socket, const int* idle, size_t idleCount, int last) {
    mWatched.reserve(idleCount + 2);
    for (size_t i = 0; i < idleCount; ++i) {
        mWatched.push_back({idle[i], POLLIN, 0});
    }
    mWatched.push_back({socket, POLLIN, 0});
    std::sort(mWatched.begin(), mWatched.end(),
              [](const pollfd& a, const pollfd& b) { return a.fd < b.fd; });
    for (size_t i = 0; i < mWatched.size(); ++i) {
        if (mWatched[i].fd == socket) {
            mServed = i;
        }
    }
    if (last >= 0) {
        mWatched.push_back({last, POLLIN, 0});
    }
}

bool ServerWait::wait() {
    while (ppoll(mWatched.data(), mWatched.size(), nullptr, nullptr) < 0) {
        if (errno != EINTR) {
            return false;
        }
    }
    return (mWatched[mServed].revents & POLLIN) != 0;
}

int serveEcho(int socket, const int* idle, size_t idleCount, SendCalls sends) {
    uint8_t header[kHeaderSize];
    static uint8_t data[kMaxData];
    int fds[kMaxFds];
    ServerWait waiter(socket, idle, idleCount);
    while (true) {
        if (!waiter.wait()) {
            return 1;
        }
        if (receiveRecord(socket, header, kHeaderSize, nullptr, 0) < 0) {
            return 1;
        }
        const Header request = unpackHeader(header);
        if (request.type == kStopType) {
            return 0;
        }
        if (request.dataCount > kMaxData || request.fdCount > kMaxFds) {
            return 1;
        }
        const int received = receiveRecord(socket, data, request.dataCount, fds, request.fdCount);
        if (received < 0) {
            return 1;
        }
        const bool sent =
                sendMessage(socket, sends, header, data, request.dataCount, fds, received);
        closeAll(fds, received);
        if (!sent) {
            return 1;
        }
    }
}

}  // namespace velacam::bench::raw
