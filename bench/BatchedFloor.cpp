#include "BatchedFloor.h"

#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sysutils/FileDescriptor.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "RawFloor.h"

namespace velacam::bench::raw {

namespace {

constexpr size_t kControlSpace = CMSG_SPACE(sizeof(int) * kMaxFds);
// The most descriptors one record carries (the kernel's SCM_MAX_FD).
constexpr size_t kMostRecordFds = 253;
constexpr size_t kGuardedControlSpace = CMSG_SPACE(sizeof(int) * kMostRecordFds);
// The process's buffer behind the room, or null when it cannot be had. Room
// and buffer together offer kMaxData, the library's inline maximum.
void* spillBuffer() {
    static void* const buffer = [] {
        void* mapped =
                mmap(nullptr, kMaxData, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        return mapped == MAP_FAILED ? nullptr : mapped;
    }();
    return buffer;
}

// The two records of one message as an mmsghdr array: header record first,
// data record second, each with its own control buffer.
class RecordPair {
  public:
    RecordPair(const uint8_t* header, const void* data, size_t dataSize, size_t fdCount) {
        std::memset(mMessages, 0, sizeof(mMessages));
        mVectors[0] = {const_cast<uint8_t*>(header), kHeaderSize};
        mVectors[1] = {const_cast<void*>(data), dataSize};
        const size_t spaces[2] = {CMSG_SPACE(0), CMSG_SPACE(sizeof(int) * fdCount)};
        for (int i = 0; i < 2; ++i) {
            std::memset(mControl[i], 0, spaces[i]);
            msghdr& header = mMessages[i].msg_hdr;
            header.msg_iov = &mVectors[i];
            header.msg_iovlen = 1;
            header.msg_control = mControl[i];
            header.msg_controllen = spaces[i];
        }
    }

    // Offers the data record what a receiver that has not read the header
    // yet must: the room behind a new message's header, or more for a
    // larger message (`data` holds at least kGuardedRoom bytes), a buffer
    // behind it up to the inline maximum, and control room for a record's
    // most descriptors. False without the buffer.
    bool guard(Guards guards) {
        if (guards == Guards::kNone) {
            return true;
        }
        void* spill = spillBuffer();
        if (spill == nullptr) {
            return false;
        }
        mVectors[1].iov_len = std::min(std::max(mVectors[1].iov_len, kGuardedRoom), kMaxData);
        mVectors[2] = {spill, kMaxData - mVectors[1].iov_len};
        mMessages[1].msg_hdr.msg_iovlen = mVectors[2].iov_len != 0 ? 2 : 1;
        for (mmsghdr& message : mMessages) {
            message.msg_hdr.msg_controllen = kGuardedControlSpace;
        }
        return true;
    }

    // Fills the control messages for sending: none in the header record,
    // `fds` in the data record.
    void attach(const int* fds, size_t fdCount) {
        for (int i = 0; i < 2; ++i) {
            const size_t fdBytes = i == 0 ? 0 : sizeof(int) * fdCount;
            cmsghdr* cmsg = CMSG_FIRSTHDR(&mMessages[i].msg_hdr);
            cmsg->cmsg_len = CMSG_LEN(fdBytes);
            cmsg->cmsg_level = SOL_SOCKET;
            cmsg->cmsg_type = SCM_RIGHTS;
            if (fdBytes != 0) {
                std::memcpy(CMSG_DATA(cmsg), fds, fdBytes);
            }
        }
    }

    bool send(int socket) {
        unsigned done = 0;
        while (done < 2) {
            // As the library does: a vanished peer is an error, not SIGPIPE.
            const int sent = sendmmsg(socket, mMessages + done, 2 - done, MSG_NOSIGNAL);
            if (sent < 0 && errno != EINTR) {
                return false;
            }
            done += sent > 0 ? static_cast<unsigned>(sent) : 0;
        }
        return true;
    }

    bool receive(int socket) {
        unsigned done = 0;
        while (done < 2) {
            const int received = recvmmsg(socket, mMessages + done, 2 - done, 0, nullptr);
            if (received < 0 && errno != EINTR) {
                return false;
            }
            if (received == 0) {
                return false;
            }
            done += received > 0 ? static_cast<unsigned>(received) : 0;
        }
        return true;
    }

    // Bytes that arrived in the data record.
    size_t dataReceived() const { return mMessages[1].msg_len; }

    // Descriptors that arrived in the data record, into `fds` (room for
    // `room`); any beyond are closed. Returns the number kept.
    int takeDescriptors(int* fds, size_t room) {
        return raw::takeDescriptors(mMessages[1].msg_hdr, fds, room);
    }

  private:
    mmsghdr mMessages[2];
    iovec mVectors[3];
    alignas(cmsghdr) uint8_t mControl[2][kGuardedControlSpace];
};

}  // namespace

bool setReceiveBound(int socket) {
    const timeval bound{1, 0};
    return setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof(bound)) == 0;
}

bool sendPair(int socket, const uint8_t* header, const void* data, size_t dataSize, const int* fds,
              size_t fdCount) {
    RecordPair pair(header, data, dataSize, fdCount);
    pair.attach(fds, fdCount);
    return pair.send(socket);
}

bool roundTripBatched(int socket, const uint8_t* header, const uint8_t* data, size_t dataSize,
                      const int* fds, size_t fdCount, uint8_t* replyData, Guards guards) {
    if (!sendPair(socket, header, data, dataSize, fds, fdCount)) {
        return false;
    }
    uint8_t replyHeader[kHeaderSize];
    RecordPair reply(replyHeader, replyData, dataSize, fdCount);
    if (!reply.guard(guards) || !reply.receive(socket)) {
        return false;
    }
    int replyFds[kMaxFds];
    const int received = reply.takeDescriptors(replyFds, kMaxFds);
    closeAll(replyFds, received);
    return static_cast<size_t>(received) == fdCount && reply.dataReceived() == dataSize;
}

int serveEchoBatched(int socket, const int* idle, size_t idleCount, size_t dataSize, size_t fdCount,
                     Guards guards) {
    if (dataSize > kMaxData || fdCount > kMaxFds) {
        return 1;
    }
    // Guarded: an eventfd polled last beside the served socket and never
    // signalled, as the reactor's exit descriptor.
    const Kestrel::utils::sys::FileDescriptor exit(
            guards == Guards::kNone ? -1 : eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), 0);
    if (guards != Guards::kNone && exit.get() < 0) {
        return 1;
    }
    uint8_t header[kHeaderSize];
    static uint8_t data[kMaxData];
    int fds[kMaxFds];
    ServerWait waiter(socket, idle, idleCount, exit.get());
    while (true) {
        if (!waiter.wait()) {
            return 1;
        }
        RecordPair request(header, data, dataSize, fdCount);
        if (!request.guard(guards) || !request.receive(socket)) {
            return 1;
        }
        const int received = request.takeDescriptors(fds, kMaxFds);
        if (unpackHeader(header).type == kStopType) {
            closeAll(fds, received);
            return 0;
        }
        const bool sent = sendPair(socket, header, data, request.dataReceived(), fds, received);
        closeAll(fds, received);
        if (!sent) {
            return 1;
        }
    }
}

}  // namespace velacam::bench::raw
