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
#include "internal/ReceiveBuffer.h"
#include "internal/ReceivedControl.h"
#include "internal/RecordPair.h"
#include "internal/ResultText.h"
#include "internal/RoomWait.h"
#include "internal/TransportLogSite.h"

namespace Kestrel::ipc {

// Prebuilt modules link against this layout, on 32- and 64-bit alike.
static_assert(sizeof(UnixDomainSocket) == 24 && alignof(UnixDomainSocket) == 8);

using bounded_receive::Clock;
using bounded_receive::Deadline;
using bounded_receive::isBlocking;
using bounded_receive::receiveBy;
using bounded_receive::receiveOnce;
using received_control::clearSlots;
using received_control::closeAllReceived;
using received_control::takeDescriptors;

namespace {
constexpr const utils::LogSite& kLogSite = kTransportLogSite;

constexpr int kNotBound = -ENOENT;              // -2
constexpr int kOutOfStep = -ECONNABORTED;       // -103: a header went without its payload
constexpr int kCountsDisagree = -EINVAL;        // -22: the header does not describe the payload
constexpr unsigned long kMinimalBuffer = 4096;  // each buffer of a one-way pair's reverse direction
// AF_UNIX refuses a record larger than the sender's SO_SNDBUF less this.
constexpr size_t kRecordOverhead = 32;
// Every send buffer holds a record this large (the kernel's smallest send
// buffer is 4608 bytes), so smaller payloads are sent without asking.
constexpr size_t kRecordAlwaysFits = 4096;
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

// What follows a send that put nothing on the wire and failed with `error`:
// 0 to try again (a signal, or room or a hang-up came), else the result.
// No room is waited for within the send's bound, unless the owner made the
// socket non-blocking; past the bound the result is -11, as a non-blocking
// socket gives at once.
int afterNothingSent(int error, RoomWait& wait) {
    if (error == EINTR) {
        return 0;
    }
    if (error == EAGAIN && !wait.socketIsNonBlocking()) {
        const int waited = wait.forRoom();
        if (waited == 0) {
            return 0;  // the next call tells which it was
        }
        if (waited == -ETIMEDOUT) {
            IPC_LOGE("no room to send within %lld ms, nothing sent",
                     static_cast<long long>(wait.timeout().count()));
            return -EAGAIN;
        }
        error = -waited;
    }
    if (error != EAGAIN) {
        IPC_LOGE("sendmsg failed (%s)", std::strerror(error));
    }
    return -error;
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

uint32_t UnixDomainSocket::storedTimeout(std::chrono::milliseconds timeout) {
    using Stored = std::chrono::duration<uint32_t, std::milli>;
    return static_cast<uint32_t>(std::clamp(timeout, std::chrono::milliseconds(0),
                                            std::chrono::milliseconds(Stored::max().count()))
                                         .count());
}

void UnixDomainSocket::setPayloadTimeout(std::chrono::milliseconds timeout) {
    mPayloadTimeoutMs = storedTimeout(timeout);
    applyPayloadTimeout();
}

void UnixDomainSocket::setSendTimeout(std::chrono::milliseconds timeout) {
    mSendTimeoutMs = storedTimeout(timeout);
}

void UnixDomainSocket::applyPayloadTimeout() {
    const int socketFd = mSocketFd.get();
    if (socketFd < 0) {
        return;
    }
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(payloadTimeout());
    timeval limit{};
    limit.tv_sec = static_cast<time_t>(seconds.count());
    limit.tv_usec = static_cast<suseconds_t>(
            std::chrono::duration_cast<std::chrono::microseconds>(payloadTimeout() - seconds)
                    .count());
    if (::setsockopt(socketFd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit)) != 0) {
        // The bound still holds, at the cost of a ppoll per late record.
        IPC_LOGE("set receive time-out failed (%s)", std::strerror(errno));
    }
}

int UnixDomainSocket::refusalOf(const Message::Wire& wire, OutgoingRecord& payload) const {
    const Message::Counts counts = Message::countsOf(wire.header);
    if (wire.storedPayloadBytes != counts.data + sizeof(int) * counts.fds) {
        // The peer would wait for what the header announces, or be handed
        // descriptor numbers read from data bytes.
        IPC_LOGE(
                "message refused, nothing sent: its header announces %u data bytes and %u fds, "
                "its payload holds %zu bytes",
                counts.data, static_cast<unsigned>(counts.fds), wire.storedPayloadBytes);
        return kCountsDisagree;
    }
    int refusal = 0;
    if (counts.fds > kMaxRecordDescriptors) {
        refusal = -EINVAL;  // what the kernel says to more
    } else if (counts.data > kMaxInlineData ||
               (counts.data > kRecordAlwaysFits && counts.data > recordLimit(mSocketFd.get()))) {
        refusal = -EMSGSIZE;
    } else {
        refusal = payload.checkDescriptors();
    }
    if (refusal != 0) {
        IPC_LOGE("message refused, nothing sent (%s): %u data bytes, %u fds",
                 std::strerror(-refusal), counts.data, static_cast<unsigned>(counts.fds));
    }
    return refusal;
}

int UnixDomainSocket::send(const Message& message) {
    return observe::send(this, &UnixDomainSocket::sendRecords, mSocketFd.get(), message);
}

int UnixDomainSocket::sendRecords(const Message& message) {
    const int socketFd = mSocketFd.get();
    if (socketFd < 0) {
        IPC_LOGE("send message header failed (%s)", resultText(kNotBound));
        return kNotBound;
    }
    const Message::Wire wire = message.wire();
    const Message::PackedPayload& packed = wire.payload;
    // Everything the kernel would refuse of the payload record, and counts
    // that do not describe it, are refused here, before the header goes, so
    // that a refused message leaves the wire as it was.
    OutgoingRecord records[] = {{wire.header, Message::kHeaderSize, nullptr, 0},
                                {packed.data, packed.dataBytes, packed.fds,
                                 std::min(packed.fdCount, kMaxRecordDescriptors)}};
    if (const int refusal = refusalOf(wire, records[1]); refusal != 0) {
        return refusal;
    }
    mmsghdr both[2] = {};
    for (size_t i = 0; i < 2; ++i) {
        records[i].logBefore(kSendRecord, socketFd);
        both[i].msg_hdr = records[i].header();
    }
    // Never blocking in the kernel: a full buffer is waited on here, within
    // the send time-out, and only once it is full.
    RoomWait wait(socketFd, sendTimeout());
    for (;;) {
        // MSG_NOSIGNAL: a vanished peer is an error to return (EPIPE), not a
        // reason to kill the process with SIGPIPE.
        const int sent = ::sendmmsg(socketFd, both, 2, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent > 0) {
            records[0].logSent(kSendRecord, both[0].msg_len);
            if (sent == 2) {
                records[1].logSent(kSendRecord, both[1].msg_len);
                return 0;
            }
            // Only the header went (the buffer filled up between the two
            // records, or the kernel could not allocate the payload's): the
            // payload must follow it.
            return sendPayloadAfterHeader(both[1].msg_hdr, wait);
        }
        // Nothing went.
        const int result = afterNothingSent(errno, wait);
        if (result != 0) {
            IPC_LOGE("send message header failed (%s)", resultText(result));
            return result;
        }
    }
}

int UnixDomainSocket::sendPayloadAfterHeader(msghdr& payload, RoomWait& wait) {
    const int socketFd = mSocketFd.get();
    for (;;) {
        const ssize_t sent = ::sendmsg(socketFd, &payload, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent >= 0) {
            IPC_LOGD("[%s] bytes_sent(%zd)", kSendRecord, sent);
            return 0;
        }
        int error = errno;
        if (error == EAGAIN) {
            error = -wait.forRoom();
        } else if (error == ENOBUFS || error == ENOMEM) {
            // The kernel could not allocate the record now; memory may come
            // back before the bound.
            error = wait.afterNoMemory() == 0 ? 0 : error;
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
    const int result = mPayloadTimeoutMs != 0 && isBound()
                               ? receiveBoth(message, storage, inPlace != nullptr)
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
        IPC_LOGE("recv message header failed (%s)", resultText(result));
        return result;
    }
    return receivePayloadAlone(storage, header, Message::countsOf(header));
}

int UnixDomainSocket::receiveBoth(Message* message, Message::Storage& storage, bool inPlace) {
    const int socketFd = mSocketFd.get();
    // The payload record goes behind the header, into room for one as large
    // as the last (at least a new message's reserved bytes), and what does
    // not fit there into the thread's receive buffer: kMaxInlineData bytes in
    // all.
    const size_t sizeBefore = storage.size();
    try {
        storage.resize(std::max({storage.capacity(), Message::kReservedStorage,
                                 Message::kHeaderSize + mLastPayloadBytes}));
    } catch (const std::bad_alloc&) {
        return receiveOneByOne(message, storage);
    }
    const size_t room = storage.size() - Message::kHeaderSize;
    unsigned char* const buffer = room < kMaxInlineData ? receive_buffer::forThisThread() : nullptr;
    if (room < kMaxInlineData && buffer == nullptr) {
        storage.resize(sizeBefore);
        return receiveOneByOne(message, storage);
    }
    // Taken after the growth: the storage may be the message's own, which
    // this call has to itself.
    uint8_t* const header = inPlace ? storage.data() : message->header().first;
    logReceiveBefore(socketFd, 0);  // the header record's
    RecordPair records(header, storage.data() + Message::kHeaderSize, room, buffer);
    int received;
    do {
        received = records.receive(socketFd);
        // A blocking socket that ran out of its receive time-out before any
        // header came waits on, as for a header alone.
    } while (received < 0 && errno == EAGAIN && isBlocking(socketFd));
    if (received < 0) {
        storage.resize(sizeBefore);
        const int failure = receiveFailure();
        IPC_LOGE("recv message header failed (%s)", resultText(failure));
        return failure;
    }
    IPC_LOGW("no ancillary data, do not handle the cmsg part");
    if (!inPlace) {
        std::memcpy(storage.data(), header, Message::kHeaderSize);
    }
    const Message::Counts counts = Message::countsOf(header);
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
    // In place: back to the header alone, and no room kept for what was refused.
    storage.resize(Message::kHeaderSize);
    if (storage.capacity() > Message::kReservedStorage) {
        storage.shrink_to_fit();
    }
    IPC_LOGE("receive file descriptors and message failed (%s)", resultText(result));
    return result;
}

void UnixDomainSocket::noteReceivedPayload(const Message::Counts& counts) {
    const size_t bytes = size_t{counts.data} + sizeof(int) * counts.fds;
    mLastPayloadBytes =
            static_cast<uint16_t>(std::min<size_t>(bytes, std::numeric_limits<uint16_t>::max()));
}

int UnixDomainSocket::refusePayload(const Message::Counts& counts, size_t length,
                                    bool truncated) const {
    int refusal = 0;
    if (counts.data > kMaxInlineData) {
        IPC_LOGE("the header announces %u data bytes, more than the %zu a message carries",
                 counts.data, kMaxInlineData);
        refusal = -EMSGSIZE;
    } else if (truncated) {
        IPC_LOGE("the payload record is longer than the %zu data bytes a message carries",
                 kMaxInlineData);
        refusal = -EMSGSIZE;
    } else if (length < counts.data && !(length == 0 && peerHasClosed())) {
        // An empty record at end of stream is the peer gone between the two
        // records: its data reads as zeros, as it always has.
        IPC_LOGE("the payload record of %zu bytes is shorter than the %u announced", length,
                 counts.data);
        refusal = -EBADMSG;
    }
    errno = -refusal;
    return refusal;
}

bool UnixDomainSocket::peerHasClosed() const {
    pollfd entry{mSocketFd.get(), POLLRDHUP, 0};
    return ::poll(&entry, 1, 0) == 1 && (entry.revents & (POLLRDHUP | POLLHUP)) != 0;
}

int UnixDomainSocket::placePayload(Message::Storage& storage, const RecordPair& records,
                                   const Message::Counts& counts) {
    const size_t received = records.payloadLength();
    const int refusal = refusePayload(counts, received, records.truncated());
    if (refusal != 0) {
        closeAllReceived(records.payloadRecord());
        return refusal;
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
    // What a longer record brings past the announced size is dropped; a peer
    // gone between the two records leaves the data as zeros.
    std::memset(data + kept, 0, counts.data - kept);
    clearSlots(data + counts.data, counts.fds);
    noteReceivedPayload(counts);
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
    const Deadline deadline{mPayloadTimeoutMs != 0, Clock::now() + payloadTimeout()};
    iovec vector{nullptr, 0};
    msghdr record = control.recordHeader(&vector);
    const Message::Counts counts{dataCount, fdCount};

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
                     static_cast<long long>(mPayloadTimeoutMs));
            return kOutOfStep;  // the line above says why
        }
        // Whether the failed call took the record or left it queued is not
        // known, so the next header cannot be trusted to be one: out of step,
        // whatever the reason.
        receiveFailure();
        return kOutOfStep;
    };

    // Refused before memory is taken for it.
    if (dataCount > kMaxInlineData) {
        return discard(-refusePayload(counts, 0, false));
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
    // MSG_TRUNC: the result is the record's whole length, however much of it
    // fitted.
    const ssize_t received = receiveBy(socketFd, &record, MSG_TRUNC, deadline);
    if (received < 0) {
        return waitFailed();
    }
    const auto length = static_cast<size_t>(received);
    const int refusal = refusePayload(counts, length, length > kMaxInlineData);
    if (refusal != 0) {
        closeAllReceived(record);
        return refusal;
    }
    // A longer record was cut to the announced size by the kernel; a peer
    // gone between the two records leaves the data as zeros.
    const size_t kept = std::min<size_t>(length, dataCount);
    std::memset(data + kept, 0, dataCount - kept);
    noteReceivedPayload(counts);
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
    RoomWait wait(socketFd, sendTimeout());
    for (;;) {
        const ssize_t sent = ::sendmsg(socketFd, &record.header(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent >= 0) {
            record.logSent(__func__, static_cast<size_t>(sent));
            return 0;
        }
        const int result = afterNothingSent(errno, wait);
        if (result != 0) {
            return result;
        }
    }
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
    } while (received < 0 && errno == EAGAIN && mPayloadTimeoutMs != 0 && isBlocking(socketFd));
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
