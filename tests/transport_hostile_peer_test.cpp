// The receive path against a peer that does not follow the wire format: raw
// records written with sendmsg carrying too many, too few or no descriptors,
// credentials instead of descriptors, counts that do not match what follows,
// and a peer that goes away. Whatever arrives is handed over or closed, the
// caller's array is never overrun, and each refusal has its code and line.
#include <errno.h>
#include <gtest/gtest.h>
#include <ipc/Message.h>
#include <ipc/UnixDomainSocket.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "support/Descriptors.h"
#include "support/LogCapture.h"
#include "support/RawPeer.h"

// The kernel drops surplus descriptors and sets MSG_CTRUNC; qemu-user does
// not, so these cases only hold on a real kernel.
#define SKIP_WHERE_CONTROL_DATA_IS_EMULATED()                                        \
    if (velacam::test::underEmulation()) {                                           \
        GTEST_SKIP() << "qemu-user's recvmsg keeps surplus descriptors and sets no " \
                        "MSG_CTRUNC";                                                \
    }

namespace {

using Kestrel::ipc::Message;
using Kestrel::ipc::SocketPair;
using Kestrel::ipc::UnixDomainSocket;
using Kestrel::utils::sys::FileDescriptor;
using velacam::test::forkPeer;
using velacam::test::LogCapture;
using velacam::test::memoryFile;
using velacam::test::waitPeer;
using velacam::test::writeRecord;

constexpr int kCanary = 0x7eadbeef;

class HostilePeerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        SocketPair pair = UnixDomainSocket::createPairedSocket(65536, 65536, false);
        ASSERT_GE(pair.first.get(), 0);
        rawReceiver = pair.first.get();
        socket.bind(std::move(pair.first));
        peer = std::move(pair.second);
        file = memoryFile("payload");
        leaks.emplace();  // the fixture's own descriptors are open before the check starts
    }
    void TearDown() override { leaks->check(); }

    // Receives one record expecting `expected` descriptors into an array with
    // a canary behind it.
    int receive(size_t expected) {
        slots.assign(expected + 1, 0);
        slots[expected] = kCanary;
        data.assign(16, 0);
        return socket.receiveDataAndFileDescriptors(slots.data(), expected, data.data(),
                                                    data.size());
    }
    void expectRefused() {
        for (size_t i = 0; i + 1 < slots.size(); ++i) {
            EXPECT_EQ(slots[i], -1) << "slot " << i;
        }
        EXPECT_EQ(slots.back(), kCanary) << "written past the caller's array";
    }
    std::vector<int> copiesOfFile(size_t count) const {
        return std::vector<int>(count, file.get());
    }

    LogCapture capture;
    UnixDomainSocket socket;
    int rawReceiver = -1;
    FileDescriptor peer;
    FileDescriptor file;
    std::optional<velacam::test::DescriptorLeakCheck> leaks;
    std::vector<int> slots;
    std::vector<uint8_t> data;
};

TEST_F(HostilePeerTest, OneMoreThanAnOddExpectedCount_IsRefusedWithMinus90AndClosed) {
    // One expected: the control buffer has room for two, so both arrive.
    ASSERT_EQ(writeRecord(peer.get(), "ab", 2, copiesOfFile(2)), 2);
    EXPECT_EQ(receive(1), -EMSGSIZE);
    expectRefused();
    EXPECT_EQ(capture.count("The number of received fds is larger than expected"), 1u);
    for (const auto& line : capture.lines()) {
        if (line.text == "The number of received fds is larger than expected") {
            EXPECT_EQ(line.level, 1u);
            EXPECT_EQ(line.tag, "UnixDomainSocket");
        }
    }
}

TEST_F(HostilePeerTest, MoreThanAnEvenExpectedCount_IsRefusedWithMinus90AndClosed) {
    SKIP_WHERE_CONTROL_DATA_IS_EMULATED();
    // Two expected, five sent: the kernel delivers two and drops the rest.
    ASSERT_EQ(writeRecord(peer.get(), "ab", 2, copiesOfFile(5)), 2);
    EXPECT_EQ(receive(2), -EMSGSIZE);
    expectRefused();
    EXPECT_EQ(capture.count("The number of received fds is larger than expected"), 1u);
}

TEST_F(HostilePeerTest, FewerThanExpected_HandsOverThoseThatArrivedAndLeavesTheRestAlone) {
    ASSERT_EQ(writeRecord(peer.get(), "ab", 2, copiesOfFile(2)), 2);
    slots = {-1, -1, -1, kCanary};
    data.assign(16, 0);
    EXPECT_EQ(socket.receiveDataAndFileDescriptors(slots.data(), 3, data.data(), data.size()), 0);
    const FileDescriptor first(slots[0], 0);
    const FileDescriptor second(slots[1], 0);
    EXPECT_TRUE(velacam::test::sameFile(first.get(), file.get()));
    EXPECT_TRUE(velacam::test::sameFile(second.get(), file.get()));
    EXPECT_EQ(slots[2], -1);
    EXPECT_EQ(slots[3], kCanary);
    EXPECT_EQ(std::string(data.begin(), data.begin() + 2), "ab");
    EXPECT_EQ(capture.count("The number of received fds(2) is less than expected(3)"), 1u);
}

TEST_F(HostilePeerTest, NoDescriptorWhereSomeAreExpected_IsRefusedWithMinus61) {
    ASSERT_EQ(writeRecord(peer.get(), "ab", 2, {}), 2);  // an empty SCM_RIGHTS message
    EXPECT_EQ(receive(2), -ENODATA);
    expectRefused();
    ASSERT_EQ(writeRecord(peer.get(), "ab", 2, {}, false), 2);  // no control message at all
    EXPECT_EQ(receive(1), -ENODATA);
    expectRefused();
    EXPECT_EQ(capture.countContaining("is less than expected"), 2u);
}

TEST_F(HostilePeerTest, ClosedPeerWhereDescriptorsAreExpected_IsRefusedWithMinus61) {
    peer = FileDescriptor();
    leaks.emplace();
    EXPECT_EQ(receive(2), -ENODATA);
    expectRefused();
}

TEST_F(HostilePeerTest, DescriptorsWhereNoneAreExpected_AreDroppedByTheKernel) {
    SKIP_WHERE_CONTROL_DATA_IS_EMULATED();
    ASSERT_EQ(writeRecord(peer.get(), "ab", 2, copiesOfFile(3)), 2);
    EXPECT_EQ(receive(0), 0);
    EXPECT_EQ(slots.back(), kCanary);
    EXPECT_EQ(std::string(data.begin(), data.begin() + 2), "ab");
}

TEST_F(HostilePeerTest, Credentials_AreRefusedWithMinus74AndNeverClosedAsDescriptors) {
    SKIP_WHERE_CONTROL_DATA_IS_EMULATED();
    const int on = 1;
    ASSERT_EQ(setsockopt(rawReceiver, SOL_SOCKET, SO_PASSCRED, &on, sizeof(on)), 0);
    // One expected: the credentials (pid, uid, gid; as root uid and gid are
    // 0, standard input) fill the control buffer, no descriptor fits.
    ASSERT_EQ(writeRecord(peer.get(), "ab", 2, copiesOfFile(1)), 2);
    EXPECT_EQ(receive(1), -EBADMSG);
    expectRefused();
    EXPECT_TRUE(velacam::test::isOpen(0));
    // Ten expected: the credentials come first and two descriptors still fit
    // behind them; those two are closed.
    ASSERT_EQ(writeRecord(peer.get(), "ab", 2, copiesOfFile(10)), 2);
    EXPECT_EQ(receive(10), -EBADMSG);
    expectRefused();
    EXPECT_EQ(capture.count("unexpected control message level(1) type(2)"), 2u);
}

TEST_F(HostilePeerTest, HeaderAnnouncingDescriptorsThatDoNotFollow_FailsTheMessage) {
    Message announced;
    announced.setHeader(1, 2, 0, 3, 2);
    const auto [bytes, size] = announced.header();
    ASSERT_EQ(writeRecord(peer.get(), bytes, size, {}), 24);
    ASSERT_EQ(writeRecord(peer.get(), "abcde", 5, {}), 5);
    Message received;
    EXPECT_EQ(socket.recv(&received), -ENODATA);
    EXPECT_EQ(capture.countContaining("receive file descriptors and message failed"), 1u);
    // The new header stays, the old (empty) payload with it.
    EXPECT_EQ(received.id(), 1u);
    EXPECT_EQ(received.fileDescriptorCount(), 2u);
    EXPECT_EQ(received.header().second, 24u);
}

TEST_F(HostilePeerTest, HeaderAnnouncingFewerBytesAndNoDescriptors_KeepsWhatItAnnounced) {
    SKIP_WHERE_CONTROL_DATA_IS_EMULATED();
    Message announced;
    announced.setHeader(1, 2, 0, 2, 0);
    const auto [bytes, size] = announced.header();
    ASSERT_EQ(writeRecord(peer.get(), bytes, size, copiesOfFile(2)), 24);  // dropped
    ASSERT_EQ(writeRecord(peer.get(), "abcdef", 6, copiesOfFile(2)), 6);   // dropped
    Message received;
    EXPECT_EQ(socket.recv(&received), 0);
    const Message::Payload payload = received.payload();
    EXPECT_EQ(payload.data, (std::vector<uint8_t>{'a', 'b'}));
    EXPECT_TRUE(payload.fds.empty());
}

TEST_F(HostilePeerTest, PeerProcessSendingTooMany_LeavesNothingOpenHere) {
    const pid_t child = forkPeer([this] {
        FileDescriptor own = memoryFile("child");
        const std::vector<int> fds(4, own.get());
        return writeRecord(peer.get(), "ab", 2, fds) == 2 ? 0 : 1;
    });
    EXPECT_EQ(receive(3), -EMSGSIZE);
    EXPECT_EQ(waitPeer(child), 0);
    expectRefused();
}

}  // namespace
