// UnixDomainSocket and SocketPair: buffers, wire format, round trips, failures.
#include <errno.h>
#include <fcntl.h>
#include <ipc/MessageHandler.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "support/Messages.h"
#include "support/SocketPairFixture.h"

namespace {

using namespace Kestrel::ipc;
using namespace velacam::test;
using Bytes = std::vector<uint8_t>;

int socketOption(int fd, int option) {
    int value = 0;
    socklen_t length = sizeof(value);
    EXPECT_EQ(getsockopt(fd, SOL_SOCKET, option, &value, &length), 0);
    return value;
}

// The kernel caps a buffer size at the system maximum, then doubles it.
int kernelBufferSize(unsigned long requested, const char* maximumPath) {
    unsigned long maximum = 0;
    std::ifstream(maximumPath) >> maximum;
    return static_cast<int>(2 * std::min(requested, maximum));
}

TEST(SocketPairTest, CreatePairedSocket_MakesConnectedSeqpacketEndsWithTheBufferSizes) {
    ScopedLeakCheck leaks;
    const int receive = kernelBufferSize(65536, "/proc/sys/net/core/rmem_max");
    const int send = kernelBufferSize(98304, "/proc/sys/net/core/wmem_max");
    for (const bool oneWay : {false, true}) {
        SCOPED_TRACE(oneWay ? "one way" : "both ways");
        const SocketPair pair = UnixDomainSocket::createPairedSocket(65536, 98304, oneWay);
        const int s0 = pair.first.get();
        const int s1 = pair.second.get();
        EXPECT_EQ(socketOption(s0, SO_RCVBUF), receive);
        EXPECT_EQ(socketOption(s1, SO_SNDBUF), send);
        // The reverse direction is kept minimal (the kernel's 4096 doubled).
        EXPECT_EQ(socketOption(s0, SO_SNDBUF), oneWay ? 8192 : send);
        EXPECT_EQ(socketOption(s1, SO_RCVBUF), oneWay ? 8192 : receive);
        for (int end : {s0, s1}) {
            EXPECT_EQ(socketOption(end, SO_TYPE), SOCK_SEQPACKET);
            EXPECT_EQ(socketOption(end, SO_DOMAIN), AF_UNIX);
            EXPECT_EQ(fcntl(end, F_GETFD) & FD_CLOEXEC, 0);
            EXPECT_EQ(fcntl(end, F_GETFL) & O_NONBLOCK, 0);
        }
        const SocketPair copy(pair);  // owns duplicates of both ends
        EXPECT_NE(copy.first.get(), s0);
        EXPECT_TRUE(sameFile(copy.first.get(), s0));
        EXPECT_TRUE(sameFile(copy.second.get(), s1));
    }
}

class UnixDomainSocketTest : public RawPeerTest {
  protected:
    UnixDomainSocketTest() { sender.bind(std::move(pair.second)); }

    UnixDomainSocket sender;
};

TEST_F(UnixDomainSocketTest, WireFormat_IsAHeaderRecordThenADataRecordWithTheDescriptors) {
    const std::vector<Poller::PollEvent> readable{{near, POLLIN}};
    Poller poller = receiver.getPoller(POLLIN);
    EXPECT_EQ(poller.registeredPollEvents(), readable);
    FileDescriptor second = memoryFile("second");
    const auto message = makeMessage(7, {'a', 'b', 'c'}, {file.get(), second.get()});
    ASSERT_EQ(sender.send(*message), 0);
    EXPECT_EQ(poller.poll(1000ms), readable);

    const auto [headerBytes, headerSize] = message->header();
    const auto header = readRecord(near);
    EXPECT_EQ(header.data, Bytes(headerBytes, headerBytes + headerSize));
    EXPECT_TRUE(header.controls.empty());  // an empty SCM_RIGHTS message arrives as none
    const auto data = readRecord(near);
    EXPECT_EQ(data.data, (Bytes{'a', 'b', 'c'}));
    EXPECT_EQ(data.flags, 0);
    ASSERT_EQ(data.controls.size(), 1u);
    EXPECT_EQ(data.controls[0].type, SCM_RIGHTS);
    ASSERT_EQ(data.controls[0].fds.size(), 2u);
    EXPECT_TRUE(sameFile(data.controls[0].fds[0].get(), file.get()));
    EXPECT_TRUE(sameFile(data.controls[0].fds[1].get(), second.get()));

    // An empty message: a header and an empty record; nothing else follows.
    ASSERT_EQ(sender.send(Message()), 0);
    EXPECT_EQ(readRecord(near).result, 24);
    EXPECT_EQ(readRecord(near).result, 0);
    EXPECT_EQ(readRecord(near, 64, 4, MSG_DONTWAIT).error, EAGAIN);
}

TEST_F(UnixDomainSocketTest, RoundTrip_DeliversHeaderDataAndNewDescriptorsForTheSameFiles) {
    const auto sent = makeMessage(41, {1, 2, 3}, {file.get()}, nullptr, 42);
    sent->setHeader(41, 42, 3, 3, 1);
    ASSERT_EQ(sender.send(*sent), 0);
    ASSERT_EQ(sender.send(*makeMessage(43, {9})), 0);
    Message received;
    ASSERT_EQ(receiver.recv(&received), 0);
    EXPECT_EQ(std::make_tuple(received.id(), received.type(), received.flags()),
              std::make_tuple(41u, 42u, 3u));
    const Message::Payload payload = received.payload();
    EXPECT_EQ(payload.data, (Bytes{1, 2, 3}));
    ASSERT_EQ(payload.fds.size(), 1u);
    EXPECT_NE(payload.fds[0], file.get());
    EXPECT_TRUE(sameFile(payload.fds[0], file.get()));
    MessageHandler().handleMessage(received);  // closes what arrived

    // The same message object takes the next one: the old payload goes.
    ASSERT_EQ(receiver.recv(&received), 0);
    EXPECT_EQ(received.id(), 43u);
    EXPECT_EQ(received.fileDescriptorCount(), 0u);
    EXPECT_EQ(received.payload().data, (Bytes{9}));

    Message::Payload out;  // a bare payload record lands in the caller's buffers
    out.data = {5, 6, 7, 8};
    out.fds = {file.get()};
    ASSERT_EQ(sender.send(out), 0);
    Message::Payload in;
    in.data.resize(4);
    in.fds = {-1};
    ASSERT_EQ(receiver.recv(&in), 0);
    EXPECT_EQ(in.data, out.data);
    const FileDescriptor arrived(in.fds[0], 0);
    EXPECT_TRUE(sameFile(arrived.get(), file.get()));
}

// A kept large block shows nothing of its last message, even as zeros past a short record.
TEST_F(UnixDomainSocketTest, LargePayload_InARecycledBlockCarriesNoByteOfTheLastMessage) {
    constexpr uint32_t kLarge = UnixDomainSocket::kMaxInlineData;
    ASSERT_EQ(sender.send(*makeMessage(1, Bytes(kLarge, 0xaa), {})), 0);
    expectMessage(1, Bytes(kLarge, 0xaa));  // its block kept when the message goes
    ASSERT_TRUE(writeHeaderRecord(far, 2, kLarge, 0));
    sender.bind(FileDescriptor());
    Message second;
    ASSERT_EQ(receiver.recv(&second), 0);
    EXPECT_EQ(second.payload().data, Bytes(kLarge, 0));
}

// A closed peer gives empty records: end of stream is not detected here.
TEST_F(UnixDomainSocketTest, Failures_GiveTheirNegativeErrnoAndLines) {
    ASSERT_EQ(fcntl(near, F_SETFL, O_NONBLOCK), 0);
    uint8_t buffer[4] = {7, 7, 7, 7};
    EXPECT_EQ(receiver.receiveDataAndFileDescriptors(nullptr, 0, buffer, 1), -EAGAIN);
    const Bytes block(4096, 1);
    int result = 0;
    for (int i = 0; i < 10000 && result == 0; ++i) {
        result = receiver.sendDataAndFileDescriptors(nullptr, 0, block.data(), block.size());
    }
    EXPECT_EQ(result, -EAGAIN);
    EXPECT_EQ(capture.countContaining("failed"), 0u);
    EXPECT_EQ(receiver.recv(static_cast<Message*>(nullptr)), -EFAULT);
    EXPECT_EQ(receiver.recv(static_cast<Message::Payload*>(nullptr)), -EFAULT);
    EXPECT_EQ(capture.count("invalid message"), 1u);
    EXPECT_EQ(capture.count("The data size is not aligned to sizeof(int)"), 1u);

    // Drained first: a peer closed with data unread makes the reads fail instead.
    while (readRecord(far, block.size(), 0, MSG_DONTWAIT).result > 0) {
    }
    sender.bind(FileDescriptor());
    Message received;
    EXPECT_EQ(receiver.recv(&received), 0);
    EXPECT_EQ(received.dataCount(), 0u);
    EXPECT_EQ(receiver.receiveDataAndFileDescriptors(nullptr, 0, buffer, sizeof(buffer)), 0);
    EXPECT_EQ(buffer[0], 7);
}

// Linux raises SIGPIPE for stream sockets only: the child sends on one.
TEST_F(UnixDomainSocketTest, SendToAVanishedPeer_ReturnsMinus32WithoutSigpipe) {
    const pid_t child = forkPeer([this] {
        signal(SIGPIPE, SIG_DFL);
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
            return 2;
        }
        ::close(ends[1]);
        UnixDomainSocket stream;
        stream.bind(FileDescriptor(ends[0], 0));
        const bool returned = stream.send(*makeMessage(1, {1})) == -EPIPE;
        return returned && capture.count("send message header failed (Broken pipe)") == 1 ? 0 : 1;
    });
    EXPECT_EQ(waitPeer(child), 0);  // -1: killed by the signal
}

}  // namespace
