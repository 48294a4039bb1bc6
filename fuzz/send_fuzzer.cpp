// The send path against whatever a caller can hand it: any data size (also
// more than a message carries, and more than one record of the socket can
// hold), any number of descriptors (also more than the kernel carries in one
// record), header counts that disagree with the payload, and a small or
// large send buffer.
// A send either puts the message's two records on the wire, exactly as the
// message describes them, or returns a negative errno and puts nothing there:
// a lone header would make the peer read the next message's payload as a
// header. Counts that disagree with the payload give -22, more data than a
// message carries -90. The one exception is -103 (ECONNABORTED), with the
// header alone on the wire: the kernel could not allocate the payload record
// (ENOBUFS) within the send's bound, which no check can see before the
// header goes. Checked with plain recvmsg calls on the other end, not with
// the library's receive.
#include <errno.h>
#include <ipc/Message.h>
#include <ipc/UnixDomainSocket.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <utility>
#include <vector>

#include "support/FuzzInput.h"
#include "support/HostilePeer.h"

namespace {

using Kestrel::ipc::Message;
using Kestrel::ipc::UnixDomainSocket;
using Kestrel::utils::sys::FileDescriptor;
using velacam::fuzz::FuzzInput;

// Above the inline maximum, and above a 256 KiB send buffer's record limit.
constexpr size_t kMaxData = 320 * 1024;
constexpr size_t kKernelMaxFds = 253;    // per record; more is refused with -22
constexpr size_t kMaxFds = 300;          // above the kernel's 253 per record
constexpr size_t kMinSendBuffer = 2048;  // the kernel raises it to its own minimum
constexpr size_t kMaxSendBuffer = 256 * 1024;

[[noreturn]] void fail(const char* what, long value) {
    std::fprintf(stderr, "%s (%ld)\n", what, value);
    std::abort();
}

// One record as the kernel delivers it, with the descriptors it carried.
struct Record {
    ssize_t size = -1;  // -1: nothing was queued
    int flags = 0;
    std::vector<int> fds;
};

Record takeRecord(int fd, std::vector<uint8_t>& buffer) {
    std::vector<uint8_t> control(CMSG_SPACE(sizeof(int) * kMaxFds));
    iovec vector{buffer.data(), buffer.size()};
    msghdr header{};
    header.msg_iov = &vector;
    header.msg_iovlen = 1;
    header.msg_control = control.data();
    header.msg_controllen = control.size();
    Record record;
    record.size = ::recvmsg(fd, &header, MSG_DONTWAIT);
    if (record.size < 0) {
        if (errno != EAGAIN) {
            fail("recvmsg on the peer's end failed", errno);
        }
        return record;
    }
    record.flags = header.msg_flags;
    for (cmsghdr* cmsg = CMSG_FIRSTHDR(&header); cmsg != nullptr;
         cmsg = CMSG_NXTHDR(&header, cmsg)) {
        if (cmsg->cmsg_level != SOL_SOCKET || cmsg->cmsg_type != SCM_RIGHTS) {
            fail("a control message other than SCM_RIGHTS", cmsg->cmsg_type);
        }
        const size_t count = (cmsg->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < count; ++i) {
            int received;
            std::memcpy(&received, CMSG_DATA(cmsg) + i * sizeof(int), sizeof(received));
            record.fds.push_back(received);
        }
    }
    return record;
}

void closeAll(const Record& record) {
    for (int fd : record.fds) {
        ::close(fd);
    }
}

// What must be on the wire after a successful send of `message`: its header
// bytes, then its payload's data with one descriptor per entry.
void expectBothRecords(const Message& message, int peer) {
    std::vector<uint8_t> buffer(kMaxData + 1);
    const Record header = takeRecord(peer, buffer);
    const auto [headerBytes, headerSize] = message.header();
    if (header.size != static_cast<ssize_t>(headerSize) ||
        std::memcmp(buffer.data(), headerBytes, headerSize) != 0) {
        fail("the header record differs from the message's header", header.size);
    }
    closeAll(header);
    if (!header.fds.empty()) {
        fail("the header record carried descriptors", static_cast<long>(header.fds.size()));
    }
    const Message::Payload payload = message.payload();
    const Record data = takeRecord(peer, buffer);
    closeAll(data);
    if (data.size != static_cast<ssize_t>(payload.data.size()) || (data.flags & MSG_TRUNC) != 0 ||
        (!payload.data.empty() &&
         std::memcmp(buffer.data(), payload.data.data(), payload.data.size()) != 0)) {
        fail("the payload record differs from the message's payload", data.size);
    }
    if (data.fds.size() != payload.fds.size()) {
        fail("the payload record carried another number of descriptors",
             static_cast<long>(data.fds.size()));
    }
    const Record extra = takeRecord(peer, buffer);
    closeAll(extra);
    if (extra.size >= 0) {
        fail("a third record followed the message", extra.size);
    }
}

// The header alone: what -103 leaves.
void expectLoneHeader(const Message& message, int peer) {
    std::vector<uint8_t> buffer(kMaxData + 1);
    const Record header = takeRecord(peer, buffer);
    closeAll(header);
    if (header.size != static_cast<ssize_t>(message.header().second)) {
        fail("-103 without its header on the wire", header.size);
    }
    const Record extra = takeRecord(peer, buffer);
    closeAll(extra);
    if (extra.size >= 0) {
        fail("-103 with a record behind the header", extra.size);
    }
}

void expectNothingSent(int peer) {
    std::vector<uint8_t> buffer(kMaxData + 1);
    const Record record = takeRecord(peer, buffer);
    closeAll(record);
    if (record.size >= 0) {
        fail("a refused send left a record on the wire", record.size);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    velacam::fuzz::DiscardingLogger::install();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::set<int> before = velacam::fuzz::openDescriptors();
    {
        FuzzInput input(data, size);
        const uint8_t shape = input.take<uint8_t>();
        const size_t sendBuffer =
                kMinSendBuffer + input.take<uint32_t>() % (kMaxSendBuffer - kMinSendBuffer + 1);
        const size_t dataSize = input.take<uint32_t>() % (kMaxData + 1);
        const size_t fdCount = input.take<uint16_t>() % (kMaxFds + 1);

        Message::Payload payload;
        payload.data = input.bytesUpTo(dataSize);
        payload.data.resize(dataSize, 0xA5);
        payload.fds.assign(fdCount, velacam::fuzz::devNull());
        Message message;
        message.setHeader(input.take<uint32_t>(), input.take<uint32_t>(), input.take<uint32_t>(),
                          static_cast<uint32_t>(dataSize), static_cast<uint16_t>(fdCount));
        message.setPayload(payload);
        bool countsDisagree = false;
        if ((shape & 1) != 0) {
            // Counts rewritten after packing, as a careless caller might.
            const uint32_t announcedData = input.take<uint32_t>() % (kMaxData + 1);
            const auto announcedFds = static_cast<uint16_t>(input.take<uint16_t>() % (kMaxFds + 1));
            message.setHeader(announcedData, announcedFds);
            countsDisagree = size_t{announcedData} + sizeof(int) * announcedFds !=
                             dataSize + sizeof(int) * fdCount;
        }

        int ends[2];
        if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
            std::perror("socketpair");
            std::abort();
        }
        FileDescriptor sender(ends[0], 0);
        FileDescriptor peer(ends[1], 0);
        const unsigned long bytes = sendBuffer;
        if (::setsockopt(sender.get(), SOL_SOCKET, SO_SNDBUF, &bytes, sizeof(bytes)) != 0) {
            std::perror("setsockopt");
            std::abort();
        }
        UnixDomainSocket socket;
        socket.bind(std::move(sender));
        const int result = socket.send(message);
        if (result > 0) {
            fail("send returned a positive value", result);
        }
        if (countsDisagree && result != -EINVAL) {
            fail("counts that disagree with the payload were not refused with -22", result);
        }
        if (!countsDisagree && fdCount <= kKernelMaxFds &&
            dataSize > UnixDomainSocket::kMaxInlineData && result != -EMSGSIZE) {
            fail("more data than a message carries was not refused with -90", result);
        }
        if (result == 0) {
            expectBothRecords(message, peer.get());
        } else if (result == -ECONNABORTED) {
            expectLoneHeader(message, peer.get());
        } else {
            expectNothingSent(peer.get());
        }
    }
    velacam::fuzz::expectSameDescriptors(before, velacam::fuzz::openDescriptors());
    return 0;
}
