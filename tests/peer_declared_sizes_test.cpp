// What a peer's header can make the receiver do: a large data count that the
// payload record does not bring is refused before anything is allocated; a
// descriptor count beyond what the kernel passes in one record is served in
// part at best, with nothing left open.
#include <errno.h>
#include <gtest/gtest.h>
#include <ipc/Message.h>
#include <ipc/UnixDomainSocket.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <limits>
#include <vector>

#include "support/SocketPairFixture.h"
#include "support/Waiting.h"

namespace {

using namespace Kestrel::ipc;
using namespace velacam::test;

class PeerDeclaredSizesTest : public SocketPairFixture {
  protected:
    Watchdog watchdog{"receive with hostile counts", std::chrono::seconds(60)};
};

TEST_F(PeerDeclaredSizesTest, DeclaredDataCountAboveWhatArrives_IsRefusedWithoutTheAllocation) {
    constexpr uint32_t kDeclared = 64u << 20;
    announce(kDeclared, 0);
    ASSERT_EQ(writeRecord(peer.get(), "abc", 3, {}), 3);
    Message received;
    EXPECT_EQ(receiver.recv(&received), -EBADMSG);
    // The message keeps the new header and its old, empty, payload.
    EXPECT_EQ(received.dataCount(), kDeclared);
    EXPECT_TRUE(received.payload().data.empty());
    // The record was consumed: the next message arrives intact.
    announce(3, 0);
    ASSERT_EQ(writeRecord(peer.get(), "xyz", 3, {}), 3);
    ASSERT_EQ(receiver.recv(&received), 0);
    EXPECT_EQ(received.payload().data, (std::vector<uint8_t>{'x', 'y', 'z'}));
}

TEST_F(PeerDeclaredSizesTest, MoreDescriptorsThanTheKernelPassesInOneRecord_ArriveInPartAtBest) {
    // The kernel refuses a record carrying more than 253 descriptors, so of a
    // header announcing more, 253 arrive at best; the other slots hold -1.
    const std::vector<int> most(253, file.get());
    EXPECT_EQ(writeRecord(peer.get(), "x", 1, std::vector<int>(254, file.get())), -1);
    EXPECT_EQ(errno, EINVAL);

    for (const uint16_t announced : {uint16_t{254}, std::numeric_limits<uint16_t>::max()}) {
        announce(1, announced);
        ASSERT_EQ(writeRecord(peer.get(), "x", 1, most), 1);
        Message received;
        ASSERT_EQ(receiver.recv(&received), 0);
        const Message::Payload payload = received.payload();
        ASSERT_EQ(payload.fds.size(), announced);
        for (size_t i = 0; i < payload.fds.size(); ++i) {
            if (i < most.size()) {
                EXPECT_TRUE(sameFile(payload.fds[i], file.get())) << i;
                close(payload.fds[i]);
            } else {
                ASSERT_EQ(payload.fds[i], -1) << i;
            }
        }
    }
    EXPECT_EQ(capture.count("The number of received fds(253) is less than expected(254)"), 1u);
    EXPECT_EQ(capture.count("The number of received fds(253) is less than expected(65535)"), 1u);
}

}  // namespace
