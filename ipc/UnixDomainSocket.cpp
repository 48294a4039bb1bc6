#include <errno.h>
#include <ipc/UnixDomainSocket.h>
#include <ipc/utils/Log.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>
#include <utility>

#include "internal/BoundedReceive.h"
#include "internal/ControlBuffer.h"
#include "internal/Observation.h"
#include "internal/OutgoingRecord.h"
#include "internal/ReceivedControl.h"
#include "internal/RecordPair.h"
#include "internal/SpillRegion.h"
#include "internal/TransportLogSite.h"

namespace Kestrel::ipc {

using bounded_receive::Clock;
using bounded_receive::Deadline;
using bounded_receive::isBlocking;
using bounded_receive::receiveBy;
using bounded_receive::receiveOnce;
using bounded_receive::waitUntilReady;
using received_control::clearSlots;
using received_control::closeAllReceived;
using received_control::takeDescriptors;

namespace {
constexpr const utils::LogSite& kLogSite = kTransportLogSite;

constexpr int kNotBound = -ENOENT;              // -2
constexpr int kOutOfStep = -ECONNABORTED;       // -103: a header went without its payload
constexpr unsigned long kMinimalBuffer = 4096;  // each buffer of a one-way pair's reverse direction
// AF_UNIX refuses a record larger than the sender's SO_SNDBUF less this.
constexpr size_t kRecordOverhead = 32;
// Every send buffer holds a record this large (the kernel's smallest send
// buffer is 4608 bytes), so smaller payloads are sent without asking.
constexpr size_t kRecordAlwaysFits = 4096;
// A payload announced above this is measured (MSG_PEEK | MSG_TRUNC) before
// memory is taken for it; below it one allocation of the announced size is
// cheaper than the extra call.
constexpr size_t kMeasureAbove = size_t{1} << 20;
// The debug lines of a message's records name the single-record operations.
constexpr const char* kSendRecord = "sendDataAndFileDescriptors";
constexpr const char* kReceiveRecord = "receiveDataAndFileDescriptors";

// The two lines that open the receive of a record expecting `fdCount`
// descriptors, whichever call takes it.
void logReceiveBefore(int socketFd, size_t fdCount) {
    IPC_LOGD("[%s] socketFd(%d)", kReceiveRecord, socketFd);
    IPC_LOGD("[%s] hasAncillaryData(%s) cmsg_space(%zu)", kReceiveRecord,
             fdCount != 0 ? "yes" : "no", ControlBuffer::spaceFor(fdCount));
}

// The result of a failed recvmsg (errno), logged unless it would only block.
int receiveFailure() {
    const int error = errno;
    if (error != EAGAIN) {
        IPC_LOGE("recvmsg failed (%s)", std::strerror(error));
    }
    return -error;
}

// The largest record the kernel accepts on `socketFd` now, or the largest
// size_t when the send buffer cannot be read (the kernel then decides).
size_t recordLimit(int socketFd) {
    int sendBuffer = 0;
    socklen_t length = sizeof(sendBuffer);
    if (::getsockopt(socketFd, SOL_SOCKET, SO_SNDBUF, &sendBuffer, &length) != 0 ||
        sendBuffer < static_cast<int>(kRecordOverhead)) {
        return std::numeric_limits<size_t>::max();
    }
    return static_cast<size_t>(sendBuffer) - kRecordOverhead;
}

}  // namespace

SocketPair UnixDomainSocket::createPairedSocket(unsigned long receiveBufferSize,
                                                unsigned long sendBufferSize, bool oneWay) {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends) != 0) {
        const int error = errno;
        IPC_LOGE("create paired sockets failed(%s)", std::strerror(error));
        return SocketPair(-error, -1);
    }
    // The main direction is ends[1] to ends[0]; a one-way pair keeps the
    // reverse direction minimal.
    struct BufferSize {
        int fd;
        int option;
        unsigned long bytes;
    };
    const BufferSize sizes[] = {
            {ends[0], SO_RCVBUF, receiveBufferSize},
            {ends[1], SO_SNDBUF, sendBufferSize},
            {ends[0], SO_SNDBUF, oneWay ? kMinimalBuffer : sendBufferSize},
            {ends[1], SO_RCVBUF, oneWay ? kMinimalBuffer : receiveBufferSize},
    };
    for (const BufferSize& size : sizes) {
        if (::setsockopt(size.fd, SOL_SOCKET, size.option, &size.bytes, sizeof(size.bytes)) != 0) {
            const int error = errno;
            IPC_LOGE("set sockets failed(%s)", std::strerror(error));
            ::close(ends[0]);
            ::close(ends[1]);
            return SocketPair(-error, -1);
        }
    }
    IPC_LOGD("[%s] socketpair created (%d, %d)", __func__, ends[0], ends[1]);
    return SocketPair(ends[0], ends[1]);
}

UnixDomainSocket::~UnixDomainSocket() = default;

void UnixDomainSocket::bind(Kestrel::utils::sys::FileDescriptor&& fd) {
    mSocketFd = std::move(fd);
    observe::bound(mSocketFd.get());
    applyPayloadTimeout();
}

bool UnixDomainSocket::isBound() const { return mSocketFd.get() >= 0; }

void UnixDomainSocket::setPayloadTimeout(std::chrono::milliseconds timeout) {
    // Clamped so that a deadline (now plus the time-out, in the steady
    // clock's nanoseconds) and the socket's own time-out never overflow.
    constexpr std::chrono::milliseconds kLongest = std::chrono::hours(24 * 365);
    mPayloadTimeout = std::clamp(timeout, std::chrono::milliseconds(0), kLongest);
    applyPayloadTimeout();
}

void UnixDomainSocket::applyPayloadTimeout() {
    const int socketFd = mSocketFd.get();
    if (socketFd < 0) {
        return;
    }
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(mPayloadTimeout);
    timeval limit{};
    limit.tv_sec = static_cast<time_t>(seconds.count());
    limit.tv_usec = static_cast<suseconds_t>(
            std::chrono::duration_cast<std::chrono::microseconds>(mPayloadTimeout - seconds)
                    .count());
    if (::setsockopt(socketFd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit)) != 0) {
        // The bound still holds, at the cost of a ppoll per late record.
        IPC_LOGE("set receive time-out failed (%s)", std::strerror(errno));
    }
}

int UnixDomainSocket::send(const Message& message) {
    return observe::send(this, &UnixDomainSocket::sendRecords, mSocketFd.get(), message);
}

int UnixDomainSocket::sendRecords(const Message& message) {
    const int socketFd = mSocketFd.get();
    if (socketFd < 0) {
        IPC_LOGE("send message header failed (%s)", std::strerror(-kNotBound));
        return kNotBound;
    }
    const auto [header, payload] = message.wire();
    // What the kernel would refuse of the payload record is refused here,
    // before the header goes, so that a refused message leaves the wire as it
    // was.
    int refusal = 0;
    if (payload.fdCount > kMaxRecordDescriptors) {
        refusal = -EINVAL;
    } else if (payload.dataBytes > kRecordAlwaysFits && payload.dataBytes > recordLimit(socketFd)) {
        refusal = -EMSGSIZE;
    }
    if (refusal != 0) {
        IPC_LOGE("message refused, nothing sent (%s): %zu data bytes, %zu fds",
                 std::strerror(-refusal), payload.dataBytes, payload.fdCount);
        return refusal;
    }

    OutgoingRecord records[] = {{header, Message::kHeaderSize, nullptr, 0},
                                {payload.data, payload.dataBytes, payload.fds, payload.fdCount}};
    mmsghdr both[2] = {};
    for (size_t i = 0; i < 2; ++i) {
        records[i].logBefore(kSendRecord, socketFd);
        both[i].msg_hdr = records[i].header();
    }
    int sent;
    do {
        // MSG_NOSIGNAL: a vanished peer is an error to return (EPIPE), not a
        // reason to kill the process with SIGPIPE.
        sent = ::sendmmsg(socketFd, both, 2, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    if (sent < 0) {
        const int error = errno;
        if (error != EAGAIN) {
            IPC_LOGE("sendmsg failed (%s)", std::strerror(error));
        }
        IPC_LOGE("send message header failed (%s)", std::strerror(error));
        return -error;
    }
    records[0].logSent(kSendRecord, both[0].msg_len);
    if (sent == 2) {
        records[1].logSent(kSendRecord, both[1].msg_len);
        return 0;
    }
    // Only the header went (a signal, a full buffer of a non-blocking socket,
    // or an error sendmmsg does not report): the payload must follow it.
    return sendPayloadAfterHeader(records[1].header());
}

int UnixDomainSocket::sendPayloadAfterHeader(const msghdr& payload) {
    const int socketFd = mSocketFd.get();
    const Deadline deadline{mPayloadTimeout.count() != 0, Clock::now() + mPayloadTimeout};
    for (;;) {
        const ssize_t sent = ::sendmsg(socketFd, &payload, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent >= 0) {
            IPC_LOGD("[%s] bytes_sent(%zd)", __func__, sent);
            return 0;
        }
        int error = errno;
        if (error == EAGAIN) {
            error = -waitUntilReady(socketFd, POLLOUT, deadline);
        }
        if (error != 0 && error != EINTR) {
            IPC_LOGE("sendmsg failed (%s)", std::strerror(error));
            IPC_LOGE(
                    "the payload record did not follow its header, the connection is out of "
                    "step");
            errno = error;
            return kOutOfStep;
        }
    }
}

int UnixDomainSocket::send(const Message::Payload& payload) {
    return sendDataAndFileDescriptors(payload.fds.data(), payload.fds.size(), payload.data.data(),
                                      payload.data.size());
}

int UnixDomainSocket::recv(Message* message) {
    return observe::receive(this, &UnixDomainSocket::receiveRecords, mSocketFd.get(), message);
}

int UnixDomainSocket::receiveRecords(Message* message) {
    if (message == nullptr) {
        IPC_LOGE("invalid message");
        return -EFAULT;
    }
    // A message without a payload takes the new one in place; one with a
    // payload keeps it until the new one has come whole.
    Message::Storage* const inPlace = message->headerOnlyStorage();
    Message::Storage separate;
    Message::Storage& storage = inPlace != nullptr ? *inPlace : separate;
    // Both records in one call only while the payload wait is bounded: a
    // recvmmsg cut short with no time-out set leaves the kernel's ERESTARTSYS
    // (512) in the socket, which a send on another thread would be handed.
    // Unbound, the record-by-record path gives -2 as the header's receive does.
    SpillRegion* const spill =
            mLargePayloadsLately == 0 && mPayloadTimeout.count() != 0 && isBound()
                    ? SpillRegion::forThisThread()
                    : nullptr;
    const int result = spill != nullptr ? receiveBoth(message, storage, inPlace != nullptr, *spill)
                                        : receiveOneByOne(message, storage);
    if (result < 0) {
        return result;
    }
    if (inPlace == nullptr) {
        message->adoptStorage(std::move(separate));
    }
    return 0;
}

int UnixDomainSocket::receiveOneByOne(Message* message, Message::Storage& storage) {
    const auto [header, headerSize] = message->header();
    const int result = receiveDataAndFileDescriptors(nullptr, 0, header, headerSize);
    if (result < 0) {
        IPC_LOGE("recv message header failed (%s)", std::strerror(errno));
        return result;
    }
    const Message::Counts counts = Message::countsOf(header);
    noteReceivedPayload(counts);
    return receivePayloadAlone(storage, header, counts);
}

int UnixDomainSocket::receiveBoth(Message* message, Message::Storage& storage, bool inPlace,
                                  SpillRegion& spill) {
    const int socketFd = mSocketFd.get();
    // The payload record goes behind the header, into room for one as large
    // as the last (at least a new message's reserved bytes), and what does
    // not fit there into the spill region.
    const size_t sizeBefore = storage.size();
    try {
        storage.resize(std::max({storage.capacity(), Message::kReservedStorage,
                                 Message::kHeaderSize + mLastPayloadBytes}));
    } catch (const std::bad_alloc&) {
        return receiveOneByOne(message, storage);
    }
    // Taken after the growth: the storage may be the message's own, which
    // this call has to itself.
    uint8_t* const header = inPlace ? storage.data() : message->header().first;
    logReceiveBefore(socketFd, 0);  // the header record's
    RecordPair records(header, storage.data() + Message::kHeaderSize,
                       storage.size() - Message::kHeaderSize, spill);
    int received;
    do {
        received = records.receive(socketFd);
        // A blocking socket that ran out of its receive time-out before any
        // header came waits on, as for a header alone.
    } while (received < 0 && errno == EAGAIN && isBlocking(socketFd));
    if (received < 0) {
        storage.resize(sizeBefore);
        const int failure = receiveFailure();
        IPC_LOGE("recv message header failed (%s)", std::strerror(errno));
        return failure;
    }
    IPC_LOGW("no ancillary data, do not handle the cmsg part");
    if (!inPlace) {
        std::memcpy(storage.data(), header, Message::kHeaderSize);
    }
    const Message::Counts counts = Message::countsOf(header);
    noteReceivedPayload(counts);
    if (received == 1) {
        // The header alone: the wait for the payload record ran out or a
        // signal cut it short (which leaves EINTR in the socket for its next
        // call, recvmmsg(2), BUGS: that call takes it and goes on). Either
        // way the record gets a call of its own, and up to the payload
        // time-out once more.
        return receivePayloadAlone(storage, header, counts);
    }
    logReceiveBefore(socketFd, counts.fds);
    const int result = placePayload(storage, records, counts);
    return result < 0 ? payloadFailed(storage, result) : 0;
}

int UnixDomainSocket::receivePayloadAlone(Message::Storage& storage, const uint8_t* header,
                                          const Message::Counts& counts) {
    // The header is kept apart: it may lie in `storage`, which the payload's
    // size may move.
    uint8_t headerBytes[Message::kHeaderSize];
    std::memcpy(headerBytes, header, sizeof(headerBytes));
    const int result = receivePayload(storage, headerBytes, counts.data, counts.fds);
    return result < 0 ? payloadFailed(storage, result) : 0;
}

int UnixDomainSocket::payloadFailed(Message::Storage& storage, int result) {
    storage.resize(Message::kHeaderSize);  // in place: back to the header alone
    IPC_LOGE("receive file descriptors and message failed (%s)", std::strerror(errno));
    return result;
}

void UnixDomainSocket::noteReceivedPayload(const Message::Counts& counts) {
    const size_t bytes = size_t{counts.data} + sizeof(int) * counts.fds;
    if (bytes >= kOneCallLargest) {
        mLargePayloadsLately = kOneByOneAfterLarge;
        return;
    }
    mLastPayloadBytes = static_cast<uint16_t>(bytes);
    if (mLargePayloadsLately > 0) {
        --mLargePayloadsLately;
    }
}

int UnixDomainSocket::placePayload(Message::Storage& storage, RecordPair& records,
                                   const Message::Counts& counts) {
    const size_t received = records.payloadLength();
    if (received < counts.data && counts.data > kMeasureAbove) {
        IPC_LOGE("the payload record of %zd bytes is shorter than the %u announced",
                 static_cast<ssize_t>(received), counts.data);
        closeAllReceived(records.payloadRecord());
        errno = EBADMSG;
        return -EBADMSG;
    }
    try {
        storage.resize(Message::kHeaderSize + counts.data + sizeof(int) * counts.fds);
    } catch (const std::bad_alloc&) {
        IPC_LOGE("no memory for a payload of %u bytes", counts.data);
        closeAllReceived(records.payloadRecord());
        errno = ENOMEM;
        return -ENOMEM;
    }
    // Room sized for a larger payload than came is given back, so that a
    // queued message holds little more than it carries.
    if (storage.capacity() > std::max(Message::kReservedStorage, 2 * storage.size())) {
        storage.shrink_to_fit();
    }
    uint8_t* const data = storage.data() + Message::kHeaderSize;
    const size_t kept = std::min<size_t>(received, counts.data);
    records.gatherInto(data, kept);
    // A shorter record (a peer gone between the two records reads as 0
    // bytes) leaves the rest of the data as zeros; what a longer one brings
    // past the announced size is dropped.
    std::memset(data + kept, 0, counts.data - kept);
    clearSlots(data + counts.data, counts.fds);
    if (counts.fds == 0) {
        closeAllReceived(records.payloadRecord());  // none announced: none is taken
        IPC_LOGW("no ancillary data, do not handle the cmsg part");
        return 0;
    }
    return takeDescriptors(kReceiveRecord, records.payloadRecord(), data + counts.data, counts.fds);
}

int UnixDomainSocket::receivePayload(Message::Storage& storage, const uint8_t* header,
                                     uint32_t dataCount, uint16_t fdCount) {
    const int socketFd = mSocketFd.get();
    logReceiveBefore(socketFd, fdCount);
    ControlBuffer control(fdCount);
    const Deadline deadline{mPayloadTimeout.count() != 0, Clock::now() + mPayloadTimeout};
    iovec vector{nullptr, 0};
    msghdr record = control.recordHeader(&vector);

    // Takes the record with no room for data, closing whatever came with it.
    // A record that does not come leaves the connection out of step.
    const auto discard = [&](int error) {
        vector = iovec{nullptr, 0};
        if (receiveBy(socketFd, &record, 0, deadline) < 0) {
            // NOLINTNEXTLINE(bugprone-lambda-function-name): the line names "operator()"
            IPC_LOGE("the refused payload record could not be taken (%s)", std::strerror(errno));
            return kOutOfStep;
        }
        closeAllReceived(record);
        errno = error;
        return -error;
    };
    const auto waitFailed = [&] {
        if (errno == ETIMEDOUT) {
            // NOLINTNEXTLINE(bugprone-lambda-function-name): the line names "operator()"
            IPC_LOGE("the payload record did not follow its header within %lld ms",
                     static_cast<long long>(mPayloadTimeout.count()));
            return kOutOfStep;  // errno stays ETIMEDOUT for the caller's line
        }
        return receiveFailure();
    };

    if (dataCount > kMeasureAbove) {
        msghdr probe{};
        const ssize_t length = receiveBy(socketFd, &probe, MSG_PEEK | MSG_TRUNC, deadline);
        if (length < 0) {
            return waitFailed();
        }
        if (static_cast<size_t>(length) < dataCount) {
            IPC_LOGE("the payload record of %zd bytes is shorter than the %u announced", length,
                     dataCount);
            return discard(EBADMSG);
        }
    }
    try {
        storage.resize(Message::kHeaderSize + dataCount + sizeof(int) * fdCount);
    } catch (const std::bad_alloc&) {
        IPC_LOGE("no memory for a payload of %u bytes", dataCount);
        return discard(ENOMEM);
    }
    uint8_t* data = storage.data() + Message::kHeaderSize;
    std::memcpy(storage.data(), header, Message::kHeaderSize);
    clearSlots(data + dataCount, fdCount);

    vector = iovec{data, dataCount};
    const ssize_t received = receiveBy(socketFd, &record, 0, deadline);
    if (received < 0) {
        return waitFailed();
    }
    // A shorter record (a peer gone between the two records reads as 0
    // bytes) leaves the rest of the data as zeros; a longer
    // one is cut to the announced size by the kernel.
    std::memset(data + received, 0, dataCount - static_cast<size_t>(received));
    if (fdCount == 0) {
        IPC_LOGW("no ancillary data, do not handle the cmsg part");
        return 0;
    }
    return takeDescriptors(kReceiveRecord, record, data + dataCount, fdCount);
}

int UnixDomainSocket::recv(Message::Payload* payload) {
    if (payload == nullptr) {
        IPC_LOGE("The data size is not aligned to sizeof(int)");
        return -EFAULT;
    }
    return receiveDataAndFileDescriptors(payload->fds.data(), payload->fds.size(),
                                         payload->data.data(), payload->data.size());
}

int UnixDomainSocket::sendDataAndFileDescriptors(const int* fds, size_t fdCount, const void* data,
                                                 size_t dataSize) {
    const int socketFd = mSocketFd.get();
    if (socketFd < 0) {
        return kNotBound;
    }
    if (fdCount > kMaxRecordDescriptors) {  // what the kernel says to more
        IPC_LOGE("sendmsg failed (%s)", std::strerror(EINVAL));
        return -EINVAL;
    }
    OutgoingRecord record(data, dataSize, fds, fdCount);
    record.logBefore(__func__, socketFd);
    ssize_t sent;
    do {
        sent = ::sendmsg(socketFd, &record.header(), MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    if (sent < 0) {
        const int error = errno;
        if (error != EAGAIN) {
            IPC_LOGE("sendmsg failed (%s)", std::strerror(error));
        }
        return -error;
    }
    record.logSent(__func__, static_cast<size_t>(sent));
    return 0;
}

int UnixDomainSocket::receiveDataAndFileDescriptors(int* fds, size_t fdCount, void* data,
                                                    size_t dataSize) {
    const int socketFd = mSocketFd.get();
    if (socketFd < 0) {
        return kNotBound;
    }
    logReceiveBefore(socketFd, fdCount);
    ControlBuffer control(fdCount);
    iovec vector{data, dataSize};
    msghdr header = control.recordHeader(&vector);
    ssize_t received;
    do {
        received = receiveOnce(socketFd, &header, 0);
        // The payload time-out is the socket's receive time-out: a blocking
        // socket that ran out of it waits on.
    } while (received < 0 && errno == EAGAIN && mPayloadTimeout.count() != 0 &&
             isBlocking(socketFd));
    if (received < 0) {
        return receiveFailure();
    }
    // Neither the byte count nor MSG_TRUNC is examined: a record is taken for
    // what it is, and end of stream (0 bytes) is not told apart here.
    if (fdCount == 0) {
        IPC_LOGW("no ancillary data, do not handle the cmsg part");
        return 0;
    }
    return takeDescriptors(__func__, header, fds, fdCount);
}

Poller UnixDomainSocket::getPoller(short events) const {
    Poller poller;
    poller.registerPollEvent(mSocketFd.get(), events);
    return poller;
}

}  // namespace Kestrel::ipc
