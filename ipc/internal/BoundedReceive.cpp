#include "BoundedReceive.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>

#include <algorithm>

namespace Kestrel::ipc::bounded_receive {

namespace {
// Set on every descriptor received, atomically with the receive.
constexpr int kCloseOnExec = MSG_CMSG_CLOEXEC;
}  // namespace

int waitUntilReady(int socketFd, short events, const Deadline& deadline) {
    pollfd entry{socketFd, events, 0};
    for (;;) {
        timespec limit{};
        if (deadline.bounded) {
            const auto left = std::max(deadline.at - Clock::now(), Clock::duration::zero());
            const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
            limit.tv_sec = static_cast<time_t>(seconds.count());
            limit.tv_nsec = static_cast<long>(
                    std::chrono::duration_cast<std::chrono::nanoseconds>(left - seconds).count());
        }
        const int ready = ::ppoll(&entry, 1, deadline.bounded ? &limit : nullptr, nullptr);
        if (ready > 0) {
            return 0;
        }
        if (ready == 0) {
            return -ETIMEDOUT;
        }
        if (errno != EINTR) {
            return -errno;
        }
    }
}

ssize_t receiveOnce(int socketFd, msghdr* header, int flags) {
    ssize_t received;
    do {
        received = ::recvmsg(socketFd, header, flags | kCloseOnExec);
    } while (received < 0 && errno == EINTR);
    return received;
}

ssize_t receiveBy(int socketFd, msghdr* header, int flags, const Deadline& deadline) {
    for (;;) {
        const ssize_t received = receiveOnce(socketFd, header, flags);
        if (received >= 0 || errno != EAGAIN) {
            return received;
        }
        if (deadline.bounded && Clock::now() >= deadline.at) {
            errno = ETIMEDOUT;
            return -1;
        }
        const int waited = waitUntilReady(socketFd, POLLIN, deadline);
        if (waited < 0) {
            errno = -waited;
            return -1;
        }
    }
}

bool isBlocking(int socketFd) {
    const int flags = ::fcntl(socketFd, F_GETFL);
    return flags >= 0 && (flags & O_NONBLOCK) == 0;
}

}  // namespace Kestrel::ipc::bounded_receive
