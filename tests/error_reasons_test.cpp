// The reasons error lines give: the result the call returns, never a stale
// errno ("Success" after a failed receive) nor the text of ENOENT for a
// socket that has no descriptor.
#include <errno.h>
#include <gtest/gtest.h>
#include <ipc/Message.h>
#include <ipc/SocketEventHandler.h>
#include <ipc/UnixDomainSocket.h>

#include <vector>

#include "support/Messages.h"
#include "support/SocketPairFixture.h"

namespace {

namespace ipc = Kestrel::ipc;
using namespace velacam::test;
using ipc::Message;

using ErrorReasonsTest = SocketPairFixture;

TEST_F(ErrorReasonsTest, UnboundSocketIsCalledNotBound_RefusedPayloadRecordsQuoteTheRefusal) {
    // Every send and receive of an unbound socket gives -2; whole messages log why.
    ipc::UnixDomainSocket unbound;
    EXPECT_FALSE(unbound.isBound());
    Message message;
    Message::Payload payload;
    int fd = -1;
    uint8_t byte = 0;
    EXPECT_EQ(std::vector<int>({unbound.send(payload), unbound.recv(&payload),
                                unbound.sendDataAndFileDescriptors(&fd, 1, &byte, 1),
                                unbound.receiveDataAndFileDescriptors(&fd, 1, &byte, 1),
                                unbound.send(message), unbound.recv(&message)}),
              std::vector<int>(6, -ENOENT));
    EXPECT_EQ(capture.count("send message header failed (socket not bound)"), 1u);
    EXPECT_EQ(capture.count("recv message header failed (socket not bound)"), 1u);
    ipc::SocketEventHandler handler(FileDescriptor(), ipc::EventType::READ);
    EXPECT_EQ(handler.sendMessage(message), -ENOENT);
    EXPECT_EQ(handler.receiveMessage(&message), -ENOENT);
    EXPECT_EQ(capture.count("send string failed (socket not bound)"), 1u);
    EXPECT_EQ(capture.count("receive string failed(socket not bound)"), 1u);
    EXPECT_EQ(capture.countContaining("failed (socket not bound)"), 5u);  // the socket's own too

    ipc::UnixDomainSocket receiver;
    receiver.bind(std::move(pair.first));
    // A descriptor announced and none sent: -61.
    ASSERT_TRUE(writeHeaderRecord(far, 1, 0, 1));
    ASSERT_EQ(writeRecord(far, nullptr, 0, {}, false), 0);
    EXPECT_EQ(receiver.recv(&message), -ENODATA);
    EXPECT_EQ(capture.count("receive file descriptors and message failed (No data available)"), 1u);
    // Two descriptors where one was announced: -90, both closed.
    ASSERT_TRUE(writeHeaderRecord(far, 2, 0, 1));
    ASSERT_EQ(writeRecord(far, nullptr, 0, {file.get(), file.get()}), 0);
    EXPECT_EQ(receiver.recv(&message), -EMSGSIZE);
    EXPECT_EQ(capture.count("receive file descriptors and message failed (Message too long)"), 1u);
    // No line quotes a reason the failure did not have.
    EXPECT_EQ(capture.countContaining("(Success)"), 0u);
    EXPECT_EQ(capture.countContaining("No such file or directory"), 0u);
}

}  // namespace
