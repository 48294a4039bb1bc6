// The send against a peer that stops reading or goes away, and a careless
// caller: a message leaves whole or not at all, within the send time-out.
#include <errno.h>
#include <ipc/SocketEventHandler.h>
#include <unistd.h>

#include <cstring>
#include <future>

#include "support/Messages.h"
#include "support/SocketPairFixture.h"

namespace {

using namespace Kestrel::ipc;
using namespace velacam::test;
using Clock = std::chrono::steady_clock;

constexpr size_t kMessageData = 200;
// As large as a header record: taking one off frees exactly a header's room.
constexpr size_t kFillerSize = Message::kHeaderSize;

Message messageOf(uint32_t id, size_t dataBytes = kMessageData, const std::vector<int>& fds = {}) {
    return std::move(*makeMessage(id, std::vector<uint8_t>(dataBytes, 'd'), fds));
}

void expectHeader(const RawRecord& record, uint32_t id) {
    ASSERT_EQ(record.result, static_cast<ssize_t>(Message::kHeaderSize));
    uint32_t sentId;
    std::memcpy(&sentId, record.data.data(), sizeof(sentId));
    EXPECT_EQ(sentId, id);
}

// Every record waiting on `socketFd` now, taken off it without waiting.
std::vector<RawRecord> drainRecords(int socketFd) {
    std::vector<RawRecord> records;
    for (;;) {
        RawRecord record = readRecord(socketFd, 4096, 16, MSG_DONTWAIT);
        if (record.result < 0) {
            EXPECT_EQ(record.error, EAGAIN) << "the socket failed while drained";
            return records;
        }
        records.push_back(std::move(record));
    }
}

// records[at] and records[at + 1] are message `id` whole: its header and a
// payload of `dataBytes`; the `at` records before are fillers.
void expectMessageAt(const std::vector<RawRecord>& records, size_t at, uint32_t id,
                     size_t dataBytes = kMessageData) {
    ASSERT_GT(records.size(), at + 1);
    for (size_t i = 0; i < at; ++i) {
        EXPECT_EQ(records[i].result, static_cast<ssize_t>(kFillerSize)) << "record " << i;
    }
    expectHeader(records[at], id);
    EXPECT_EQ(records[at + 1].result, static_cast<ssize_t>(dataBytes));
}

// 16 KiB buffers: the library sends on `sender` (the far end), the test reads
// the near end raw.
class TransportSendBoundaryTest : public SocketPairFixture {
  protected:
    TransportSendBoundaryTest() : SocketPairFixture(16384) { sender.bind(std::move(pair.second)); }

    // Fills the send buffer until the kernel takes no more record of any size.
    size_t fill() {
        const std::vector<uint8_t> filler(kFillerSize, 'f');
        size_t count = 0;
        while (::send(far, filler.data(), filler.size(), MSG_DONTWAIT) > 0) {
            ++count;
        }
        EXPECT_EQ(errno, EAGAIN);
        return count;
    }
    // The result of a send started on a thread of its own, given `limit` to
    // come; past that the case fails and the peer goes, which ends any send.
    template <typename T>
    T resultOf(std::future<T>& result, std::chrono::seconds limit = std::chrono::seconds(10)) {
        if (result.wait_for(limit) != std::future_status::ready) {
            ADD_FAILURE() << "the send still waits after " << limit.count() << " s";
            peer = FileDescriptor();
        }
        return result.get();
    }
    // Every record on the wire before and after `send` returns (it waits for
    // the room the first drain makes); the send's result must be 0.
    std::vector<RawRecord> drainAround(std::future<int>& send) {
        std::vector<RawRecord> records = drainRecords(peer.get());
        EXPECT_EQ(resultOf(send), 0);
        for (RawRecord& record : drainRecords(peer.get())) {
            records.push_back(std::move(record));
        }
        return records;
    }

    FileDescriptor& peer = pair.first;
    UnixDomainSocket sender;
};

// At the default time-out a peer that stops reading costs a sender about 1 s.
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
    const Outcome last = resultOf(outcome);
    ASSERT_NE(last.result, 0);
    EXPECT_GE(last.waited, std::chrono::milliseconds(900));
    EXPECT_LT(last.waited, std::chrono::seconds(5));

    const std::vector<RawRecord> records = drainRecords(peer.get());
    const size_t whole = 2 * (last.failedId - 1);
    for (size_t i = 0; i < whole; i += 2) {
        expectHeader(records.at(i), static_cast<uint32_t>(i / 2 + 1));
        EXPECT_EQ(records.at(i + 1).result, static_cast<ssize_t>(kMessageData));
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
    const std::vector<RawRecord> again = drainRecords(peer.get());
    ASSERT_EQ(again.size(), 2u);
    expectMessageAt(again, 0, last.failedId);
}

// The header went, its payload found no room: the send waits within its bound,
// then says -103 (out of step), never success.
TEST_F(TransportSendBoundaryTest, LoneHeader_IsOnlyEverReportedAsOutOfStep) {
    for (const bool peerReads : {true, false}) {
        SCOPED_TRACE(peerReads ? "the peer reads during the wait" : "the peer never reads");
        const size_t fillers = fill();
        // One filler off frees the room of the header record, not its payload's.
        ASSERT_EQ(readRecord(peer.get(), 4096, 16, MSG_DONTWAIT).result,
                  static_cast<ssize_t>(kFillerSize));
        sender.setSendTimeout(peerReads ? std::chrono::seconds(30) : std::chrono::milliseconds(50));
        const uint32_t id = peerReads ? 1 : 2;
        auto result = startBlocked([this, id] { return sender.send(messageOf(id)); });
        if (peerReads) {
            const std::vector<RawRecord> all = drainAround(result);
            ASSERT_EQ(all.size(), fillers + 1);
            expectMessageAt(all, fillers - 1, id);
        } else {
            ASSERT_EQ(resultOf(result), -ECONNABORTED);
            EXPECT_EQ(capture.countContaining("the connection is out of step"), 1u);
            const std::vector<RawRecord> records = drainRecords(peer.get());
            ASSERT_EQ(records.size(), fillers);
            for (size_t i = 0; i + 1 < fillers; ++i) {
                EXPECT_EQ(records[i].result, static_cast<ssize_t>(kFillerSize)) << "record " << i;
            }
            expectHeader(records.back(), id);
        }
    }
}

// Records left unread: the kernel reports a reset once, then a broken pipe.
TEST_F(TransportSendBoundaryTest, PeerClosingDuringTheWaitForRoom_EndsItAtOnce) {
    fill();
    sender.setSendTimeout(std::chrono::seconds(30));
    auto result = startBlocked([this] { return sender.send(messageOf(1)); });
    peer = FileDescriptor();
    EXPECT_EQ(resultOf(result, std::chrono::seconds(5)), -ECONNRESET);
    EXPECT_EQ(sender.send(messageOf(2)), -EPIPE);
}

// 0, set through the owning handler, waits as long as the peer takes.
TEST_F(TransportSendBoundaryTest, UnboundedSendTimeout_WaitsUntilThePeerReads) {
    SocketEventHandler handler(FileDescriptor(::dup(far), 0), EventType::WRITE);
    const size_t fillers = fill();
    handler.setSendTimeout(std::chrono::milliseconds(0));
    auto result = startBlocked([&handler] { return handler.sendMessage(messageOf(1)); });
    EXPECT_EQ(result.wait_for(std::chrono::milliseconds(1500)), std::future_status::timeout);
    const std::vector<RawRecord> records = drainAround(result);
    ASSERT_EQ(records.size(), fillers + 2);
    expectMessageAt(records, fillers, 1);
}

// A caller's slip is refused before the header goes: counts that do not
// describe the payload, more than a message or a record carries, a descriptor
// that is not open (the -1 of a lost slot, or a number the caller closed).
TEST_F(TransportSendBoundaryTest, MessagesThatCannotGoWhole_AreRefusedWithNothingSent) {
    int sendBuffer = 0;
    socklen_t length = sizeof(sendBuffer);
    ASSERT_EQ(getsockopt(far, SOL_SOCKET, SO_SNDBUF, &sendBuffer, &length), 0);
    ASSERT_LT(static_cast<size_t>(sendBuffer), UnixDomainSocket::kMaxInlineData);
    const int closed = ::dup(file.get());
    ASSERT_EQ(::close(closed), 0);
    // Its header announces these counts, its payload holds `data` and one descriptor.
    const auto announcing = [this](uint32_t dataCount, uint16_t fdCount, const char* data) {
        Message message = messageOf(1, std::strlen(data), {file.get()});
        message.setHeader(1, 0, 0, dataCount, fdCount);
        return message;
    };
    EXPECT_EQ(sender.send(announcing(5, 3, "ab")), -EINVAL);
    EXPECT_EQ(capture.count("message refused, nothing sent: its header announces 5 data bytes "
                            "and 3 fds, its payload holds 6 bytes"),
              1u);
    EXPECT_EQ(sender.send(announcing(2, 1, "abcde")), -EINVAL);  // its fd read from bytes 2 to 5
    Message announcedOnly;
    announcedOnly.setHeader(3, 0, 0, 5, 0);
    EXPECT_EQ(sender.send(announcedOnly), -EINVAL);
    EXPECT_EQ(sender.send(messageOf(1, 1, std::vector<int>(254, file.get()))), -EINVAL);
    EXPECT_EQ(sender.send(messageOf(2, static_cast<size_t>(sendBuffer))), -EMSGSIZE);
    for (const std::vector<int>& fds : {std::vector<int>{-1}, std::vector<int>{closed},
                                        std::vector<int>{file.get(), file.get(), -1}}) {
        EXPECT_EQ(sender.send(messageOf(1, 3, fds)), -EBADF);
    }
    EXPECT_EQ(readRecord(peer.get(), 4096, 16, MSG_DONTWAIT).error, EAGAIN) << "sent";
    ASSERT_EQ(sender.send(messageOf(2, 3, {file.get()})), 0);
    expectMessageAt(drainRecords(peer.get()), 0, 2, 3);

    // Above the inline maximum, on a socket whose buffer would take it; the
    // largest of each still goes, as two records.
    SocketPair roomy = UnixDomainSocket::createPairedSocket(262144, 262144, false);
    UnixDomainSocket roomySender;
    roomySender.bind(std::move(roomy.second));
    EXPECT_EQ(roomySender.send(messageOf(3, UnixDomainSocket::kMaxInlineData + 1)), -EMSGSIZE);
    EXPECT_EQ(readRecord(roomy.first.get(), 64, 0, MSG_DONTWAIT).error, EAGAIN);
    ASSERT_EQ(roomySender.send(messageOf(4, UnixDomainSocket::kMaxInlineData,
                                         std::vector<int>(253, file.get()))),
              0);
    expectHeader(readRecord(roomy.first.get(), 64, 0, MSG_DONTWAIT), 4);
    const RawRecord payload =
            readRecord(roomy.first.get(), UnixDomainSocket::kMaxInlineData, 253, MSG_DONTWAIT);
    EXPECT_EQ(payload.result, static_cast<ssize_t>(UnixDomainSocket::kMaxInlineData));
    ASSERT_EQ(payload.controls.size(), 1u);
    EXPECT_EQ(payload.controls[0].fds.size(), 253u);
}

}  // namespace
