// The send side of the transport against a peer that stops reading or goes
// away, and against a careless caller: a message leaves whole or not at all,
// a full buffer is waited on within the send time-out, and a lone header is
// only ever reported as out of step (-103).
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <ipc/Message.h>
#include <ipc/SocketEventHandler.h>
#include <ipc/UnixDomainSocket.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <future>
#include <vector>

#include "support/Descriptors.h"
#include "support/LogCapture.h"
#include "support/Messages.h"
#include "support/RawPeer.h"
#include "support/Waiting.h"

namespace {

using namespace Kestrel::ipc;
using namespace velacam::test;
using Clock = std::chrono::steady_clock;

constexpr size_t kMessageData = 200;
// A record as large as a message's header record, so that taking one off the
// wire frees exactly the room a header needs.
constexpr size_t kFillerSize = Message::kHeaderSize;

// Both ends of a pair with 16 KiB buffers (the kernel doubles them). The
// library sends on `sender`; the test reads the other end raw.
class TransportSendBoundaryTest : public ::testing::Test {
  protected:
    TransportSendBoundaryTest() { sender.bind(std::move(pair.second)); }

    static Message messageOf(uint32_t id, size_t dataBytes = kMessageData,
                             const std::vector<int>& fds = {}) {
        return std::move(*makeMessage(id, std::vector<uint8_t>(dataBytes, 'd'), fds));
    }
    // Fills the send buffer with filler records until the kernel takes no
    // more: the next record, whatever its size, finds no room.
    size_t fill() {
        const std::vector<uint8_t> filler(kFillerSize, 'f');
        size_t count = 0;
        while (::send(far, filler.data(), filler.size(), MSG_DONTWAIT) > 0) {
            ++count;
        }
        EXPECT_EQ(errno, EAGAIN);
        return count;
    }
    // Every record on the wire now, taking each off it.
    std::vector<RawRecord> drain() {
        std::vector<RawRecord> records;
        for (;;) {
            RawRecord record = readRecord(peer.get(), 4096, 16, MSG_DONTWAIT);
            if (record.result < 0) {
                EXPECT_EQ(record.error, EAGAIN);
                return records;
            }
            records.push_back(std::move(record));
        }
    }
    // Every record on the wire before and after `send` returns (it waits for
    // the room the first drain makes); the send's result must be 0.
    std::vector<RawRecord> drainAround(std::future<int>& send) {
        std::vector<RawRecord> records = drain();
        EXPECT_EQ(resultOf(send), 0);
        for (RawRecord& record : drain()) {
            records.push_back(std::move(record));
        }
        return records;
    }
    // The next `count` records must be fillers.
    static void expectFillers(const std::vector<RawRecord>& records, size_t count) {
        ASSERT_GE(records.size(), count);
        for (size_t i = 0; i < count; ++i) {
            EXPECT_EQ(records[i].result, static_cast<ssize_t>(kFillerSize)) << "record " << i;
        }
    }
    // records[at] and records[at + 1] are message `id` whole: its header and
    // a payload of `dataBytes`.
    static void expectMessage(const std::vector<RawRecord>& records, size_t at, uint32_t id,
                              size_t dataBytes = kMessageData) {
        ASSERT_GT(records.size(), at + 1);
        expectHeader(records[at], id);
        EXPECT_EQ(records[at + 1].result, static_cast<ssize_t>(dataBytes));
    }
    static void expectHeader(const RawRecord& record, uint32_t id) {
        ASSERT_EQ(record.result, static_cast<ssize_t>(Message::kHeaderSize));
        uint32_t sentId;
        std::memcpy(&sentId, record.data.data(), sizeof(sentId));
        EXPECT_EQ(sentId, id);
    }
    // The result of a send started on a thread of its own, given `limit` to
    // come; past that the case fails and the peer goes, which ends any send.
    int resultOf(std::future<int>& result, std::chrono::seconds limit = std::chrono::seconds(10)) {
        if (result.wait_for(limit) != std::future_status::ready) {
            ADD_FAILURE() << "the send still waits after " << limit.count() << " s";
            peer = FileDescriptor();
        }
        return result.get();
    }
    void expectNothingOnTheWire() {
        EXPECT_EQ(readRecord(peer.get(), 4096, 16, MSG_DONTWAIT).error, EAGAIN);
    }

    ScopedLeakCheck leaks;  // first member: checked last
    LogCapture capture;
    Watchdog watchdog{"send boundary case", std::chrono::seconds(60)};
    FileDescriptor file = memoryFile("payload");
    SocketPair pair = UnixDomainSocket::createPairedSocket(16384, 16384, false);
    const int far = pair.second.get();  // the sending end: its send buffer is 16 KiB
    FileDescriptor& peer = pair.first;
    UnixDomainSocket sender;
};

// The send time-out as it ships: a peer that stops reading (a stopped or
// hung process) costs a sender about 1 s, then the send gives up.
TEST_F(TransportSendBoundaryTest, PeerThatNeverReads_ReturnsWithinTheDefaultBound) {
    struct Outcome {
        int result;
        uint32_t failedId;
        Clock::duration waited;
    };
    auto outcome = std::async(std::launch::async, [this] {
        Outcome last{0, 0, {}};
        for (uint32_t id = 1; id < 10000 && last.result == 0; ++id) {
            const auto started = Clock::now();
            last = Outcome{sender.send(messageOf(id)), id, Clock::now() - started};
        }
        return last;
    });
    if (outcome.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
        ADD_FAILURE() << "the send still waits after 10 s";
        peer = FileDescriptor();  // ends the wait so that the case can end
    }
    const Outcome last = outcome.get();
    ASSERT_NE(last.result, 0);
    EXPECT_GE(last.waited, std::chrono::milliseconds(900));
    EXPECT_LT(last.waited, std::chrono::seconds(5));

    const std::vector<RawRecord> records = drain();
    const size_t whole = 2 * (last.failedId - 1);
    for (size_t i = 0; i < whole; i += 2) {
        expectMessage(records, i, static_cast<uint32_t>(i / 2 + 1));
    }
    if (last.result == -ECONNABORTED) {
        ASSERT_EQ(records.size(), whole + 1);  // the refused message's header alone
        expectHeader(records.back(), last.failedId);
        return;
    }
    // Nothing of the refused message went: once the peer has read, the
    // connection carries the next message as if nothing had happened.
    EXPECT_EQ(last.result, -EAGAIN);
    EXPECT_EQ(records.size(), whole);
    ASSERT_EQ(sender.send(messageOf(last.failedId)), 0);
    const std::vector<RawRecord> again = drain();
    ASSERT_EQ(again.size(), 2u);
    expectMessage(again, 0, last.failedId);
}

// The header went and the payload record found no room: the send waits for
// room for the payload within its bound; past it, the result is -103 and
// never success, since the peer now holds a header without its payload.
TEST_F(TransportSendBoundaryTest, LoneHeader_IsOnlyEverReportedAsOutOfStep) {
    for (const bool peerReads : {true, false}) {
        SCOPED_TRACE(peerReads ? "the peer reads during the wait" : "the peer never reads");
        const size_t fillers = fill();
        // Taking one filler off frees the room of one header record and no
        // more: the header goes, its payload does not.
        ASSERT_EQ(readRecord(peer.get(), 4096, 16, MSG_DONTWAIT).result,
                  static_cast<ssize_t>(kFillerSize));
        sender.setSendTimeout(peerReads ? std::chrono::seconds(30) : std::chrono::milliseconds(50));
        const uint32_t id = peerReads ? 1 : 2;
        auto result = startBlocked([this, id] { return sender.send(messageOf(id)); });
        if (peerReads) {
            const std::vector<RawRecord> all = drainAround(result);
            expectFillers(all, fillers - 1);
            ASSERT_EQ(all.size(), fillers + 1);
            expectMessage(all, fillers - 1, id);
        } else {
            ASSERT_EQ(resultOf(result), -ECONNABORTED);
            EXPECT_EQ(capture.countContaining("the connection is out of step"), 1u);
            const std::vector<RawRecord> records = drain();
            expectFillers(records, fillers - 1);
            ASSERT_EQ(records.size(), fillers);
            expectHeader(records.back(), id);
        }
    }
}

// The peer leaves records unread, which the kernel reports once as a reset;
// every send after that finds the pipe broken.
TEST_F(TransportSendBoundaryTest, PeerClosingDuringTheWaitForRoom_EndsItAtOnce) {
    fill();
    sender.setSendTimeout(std::chrono::seconds(30));
    auto result = startBlocked([this] { return sender.send(messageOf(1)); });
    const auto closed = Clock::now();
    peer = FileDescriptor();
    EXPECT_EQ(resultOf(result), -ECONNRESET);
    EXPECT_LT(Clock::now() - closed, std::chrono::seconds(5));
    EXPECT_EQ(sender.send(messageOf(2)), -EPIPE);
}

// 0 keeps the wait of a blocking socket: as long as the peer takes, here
// longer than the default bound. Set through the handler that owns a socket.
TEST_F(TransportSendBoundaryTest, UnboundedSendTimeout_WaitsUntilThePeerReads) {
    SocketEventHandler handler(FileDescriptor(::dup(far), 0), EventType::WRITE);
    const size_t fillers = fill();
    handler.setSendTimeout(std::chrono::milliseconds(0));
    auto result = startBlocked([&handler] { return handler.sendMessage(messageOf(1)); });
    EXPECT_EQ(result.wait_for(std::chrono::milliseconds(1500)), std::future_status::timeout);
    const std::vector<RawRecord> records = drainAround(result);
    expectFillers(records, fillers);
    ASSERT_EQ(records.size(), fillers + 2);
    expectMessage(records, fillers, 1);
}

// A caller's slip is refused before the header goes: counts that do not
// describe the payload would leave the peer waiting for bytes that never
// come, or hand it numbers read from data bytes as descriptors.
TEST_F(TransportSendBoundaryTest, CountsThatDisagreeWithThePayload_AreRefusedWithNothingSent) {
    Message::Payload packed;
    packed.data = {'a', 'b'};
    packed.fds = {file.get()};
    Message overstated;
    overstated.setPayload(packed);
    overstated.setHeader(1, 0, 0, 5, 3);
    EXPECT_EQ(sender.send(overstated), -EINVAL);
    EXPECT_EQ(capture.count("message refused, nothing sent: its header announces 5 data bytes "
                            "and 3 fds, its payload holds 6 bytes"),
              1u);

    packed.data = {'a', 'b', 'c', 'd', 'e'};
    Message understated;
    understated.setPayload(packed);
    understated.setHeader(2, 0, 0, 2, 1);  // its fd would be read from bytes 2 to 5
    EXPECT_EQ(sender.send(understated), -EINVAL);

    Message announcedOnly;
    announcedOnly.setHeader(3, 0, 0, 5, 0);
    EXPECT_EQ(sender.send(announcedOnly), -EINVAL);
    expectNothingOnTheWire();
}

TEST_F(TransportSendBoundaryTest, SizesBeyondWhatAMessageCarries_AreRefusedWithNothingSent) {
    int sendBuffer = 0;
    socklen_t length = sizeof(sendBuffer);
    ASSERT_EQ(getsockopt(far, SOL_SOCKET, SO_SNDBUF, &sendBuffer, &length), 0);
    ASSERT_LT(static_cast<size_t>(sendBuffer), UnixDomainSocket::kMaxInlineData);
    EXPECT_EQ(sender.send(messageOf(1, 1, std::vector<int>(254, file.get()))), -EINVAL);
    // More than one record of this socket's send buffer holds.
    EXPECT_EQ(sender.send(messageOf(2, static_cast<size_t>(sendBuffer))), -EMSGSIZE);
    expectNothingOnTheWire();

    // Above the inline maximum, on a socket whose buffer would take it.
    SocketPair roomy = UnixDomainSocket::createPairedSocket(262144, 262144, false);
    UnixDomainSocket roomySender;
    roomySender.bind(std::move(roomy.second));
    EXPECT_EQ(roomySender.send(messageOf(3, UnixDomainSocket::kMaxInlineData + 1)), -EMSGSIZE);
    EXPECT_EQ(readRecord(roomy.first.get(), 64, 0, MSG_DONTWAIT).error, EAGAIN);

    // The largest of each still goes, as two records, in order.
    ASSERT_EQ(roomySender.send(messageOf(4, UnixDomainSocket::kMaxInlineData,
                                         std::vector<int>(253, file.get()))),
              0);
    const RawRecord header = readRecord(roomy.first.get(), 64, 0, MSG_DONTWAIT);
    expectHeader(header, 4);
    const RawRecord payload =
            readRecord(roomy.first.get(), UnixDomainSocket::kMaxInlineData, 253, MSG_DONTWAIT);
    EXPECT_EQ(payload.result, static_cast<ssize_t>(UnixDomainSocket::kMaxInlineData));
    ASSERT_EQ(payload.controls.size(), 1u);
    EXPECT_EQ(payload.controls[0].fds.size(), 253u);
}

// A received message whose descriptor slot was lost holds -1 there; a number
// the caller closed is no better. Either would make the kernel refuse the
// payload record after its header went.
TEST_F(TransportSendBoundaryTest, DescriptorsThatAreNotOpen_AreRefusedWithNothingSent) {
    const int closed = ::dup(file.get());
    ASSERT_GE(closed, 0);
    ASSERT_EQ(::close(closed), 0);
    for (const std::vector<int>& fds : {std::vector<int>{-1}, std::vector<int>{closed},
                                        std::vector<int>{file.get(), file.get(), -1}}) {
        EXPECT_EQ(sender.send(messageOf(1, 3, fds)), -EBADF);
    }
    expectNothingOnTheWire();
    ASSERT_EQ(sender.send(messageOf(2, 3, {file.get()})), 0);
    const std::vector<RawRecord> records = drain();
    expectMessage(records, 0, 2, 3);
}

}  // namespace
