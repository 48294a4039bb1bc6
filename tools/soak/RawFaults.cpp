// The roles that write the wire format themselves, to break it: a header
// whose sender dies before the payload, a stall between the two records,
// headers that lie about the payload that follows.
#include <ipc/Message.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include "ClientPlan.h"
#include "DescriptorPool.h"

namespace velacam::soak {

using Kestrel::ipc::Message;

namespace {

// One record: `size` bytes of `data` and an SCM_RIGHTS message with `fds`
// (none allowed). False when the server has gone.
bool sendRecord(int socketFd, const void* data, size_t size, const std::vector<int>& fds) {
    iovec vector{const_cast<void*>(data), size};
    std::vector<uint8_t> control(CMSG_SPACE(sizeof(int) * fds.size()), 0);
    msghdr header{};
    header.msg_iov = &vector;
    header.msg_iovlen = 1;
    header.msg_control = control.data();
    header.msg_controllen = control.size();
    cmsghdr* rights = CMSG_FIRSTHDR(&header);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(sizeof(int) * fds.size());
    if (!fds.empty()) {
        std::memcpy(CMSG_DATA(rights), fds.data(), sizeof(int) * fds.size());
    }
    ssize_t sent;
    do {
        sent = ::sendmsg(socketFd, &header, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent == static_cast<ssize_t>(size);
}

bool sendHeader(int socketFd, uint32_t seq, uint32_t dataCount, uint16_t fdCount) {
    Message message;
    message.setHeader(seq, kRequestType, 0, dataCount, fdCount);
    const auto [bytes, size] = message.header();
    return sendRecord(socketFd, bytes, size, {});
}

// Reads and drops replies until the server has answered or gone; false when
// it has gone (it disconnects a client whose message it refused).
bool awaitAnswer(int socketFd, std::chrono::milliseconds limit) {
    pollfd entry{socketFd, POLLIN, 0};
    if (::poll(&entry, 1, static_cast<int>(limit.count())) <= 0) {
        return true;
    }
    if ((entry.revents & POLLIN) != 0) {
        char sink[64];
        const ssize_t got = ::recv(socketFd, sink, sizeof(sink), MSG_DONTWAIT);
        if (got > 0) {
            return true;
        }
    }
    return false;
}

RequestBody bodyOf(const ClientPlan& plan, uint32_t seq, uint32_t fdCount) {
    return RequestBody{plan.slot, seq, fdCount, kRequestMagic};
}

// Sends one lie as message `seq`; false when the server has gone.
bool tell(const ClientPlan& plan, Lie lie, uint32_t seq, DescriptorPool& pool) {
    const int fd = plan.socketFd;
    const RequestBody body = bodyOf(plan, seq, 0);
    switch (lie) {
        case Lie::kShortPayload:
            return sendHeader(fd, seq, 4000, 0) && sendRecord(fd, &body, sizeof(body), {});
        case Lie::kLongPayload: {
            std::vector<uint8_t> longer(3000, 0x5a);
            std::memcpy(longer.data(), &body, sizeof(body));
            return sendHeader(fd, seq, sizeof(body), 0) &&
                   sendRecord(fd, longer.data(), longer.size(), {});
        }
        case Lie::kHugeAnnouncement:
            return sendHeader(fd, seq, 1u << 30, 0) && sendRecord(fd, "abc", 3, {});
        case Lie::kMissingFds:
            return sendHeader(fd, seq, sizeof(body), 3) && sendRecord(fd, &body, sizeof(body), {});
        case Lie::kExtraFds: {
            const RequestBody one = bodyOf(plan, seq, 1);
            return sendHeader(fd, seq, sizeof(one), 1) &&
                   sendRecord(fd, &one, sizeof(one), pool.fill(0, 5, plan.slot, seq));
        }
        case Lie::kHeaderOnly:
            return sendHeader(fd, seq, sizeof(body), 0) && sendHeader(fd, seq + 1, 0, 0);
    }
    return false;
}

int halfSend(const ClientPlan& plan) {
    // Announces 16 bytes and 2 descriptors, then dies before sending them.
    (void)sendHeader(plan.socketFd, 1, sizeof(RequestBody), 2);
    ::raise(SIGKILL);
    return 1;
}

int stall(const ClientPlan& plan, std::mt19937_64& random, ClientReport& report) {
    DescriptorPool pool(1, 1);
    for (uint32_t seq = 1; seq <= 3 && !stopRequested(); ++seq) {
        // Half the stalls end within the server's 1 s payload wait, half
        // beyond it.
        const bool beyond = random() % 2 == 0;
        const auto pause =
                std::chrono::milliseconds(beyond ? 1500 + random() % 1500 : 100 + random() % 600);
        const RequestBody body = bodyOf(plan, seq, 1);
        if (!sendHeader(plan.socketFd, seq, sizeof(body), 1)) {
            break;
        }
        ++(beyond ? report.stallsBeyondBound : report.stallsWithinBound);
        std::this_thread::sleep_for(pause);
        if (!sendRecord(plan.socketFd, &body, sizeof(body), pool.fill(0, 1, plan.slot, seq)) ||
            !awaitAnswer(plan.socketFd, std::chrono::milliseconds(3000))) {
            break;
        }
    }
    return 0;
}

int lie(const ClientPlan& plan, std::mt19937_64& random, ClientReport& report) {
    DescriptorPool pool(1, 5);
    for (uint32_t seq = 1; seq <= 6 && !stopRequested(); seq += 2) {
        const auto told = static_cast<Lie>(random() % kLieCount);
        ++report.lies[static_cast<size_t>(told)];
        if (!tell(plan, told, seq, pool) ||
            !awaitAnswer(plan.socketFd, std::chrono::milliseconds(1500))) {
            break;
        }
    }
    return 0;
}

}  // namespace

int runRawFaults(const ClientPlan& plan) {
    std::mt19937_64 random(plan.seed);
    ClientReport report = newReport(plan);
    int status = 0;
    switch (plan.role) {
        case Role::kHalfSender:
            return halfSend(plan);
        case Role::kStaller:
            status = stall(plan, random, report);
            break;
        case Role::kLiar:
            status = lie(plan, random, report);
            break;
        default:
            return 2;
    }
    sendReport(plan, report);
    return status;
}

}  // namespace velacam::soak
