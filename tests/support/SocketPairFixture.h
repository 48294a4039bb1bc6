// Fixture for both ends of a socket pair, with a log capture, a file to send,
// a watchdog and a leak check.
#pragma once

#include <gtest/gtest.h>
#include <ipc/Message.h>
#include <ipc/SocketPair.h>
#include <ipc/UnixDomainSocket.h>

#include <vector>

#include "support/Descriptors.h"
#include "support/LogCapture.h"
#include "support/RawPeer.h"
#include "support/Waiting.h"

namespace velacam::test {

class SocketPairFixture : public ::testing::Test {
  protected:
    // Both ends' buffers are asked for `bufferSize` bytes (the kernel doubles them).
    explicit SocketPairFixture(int bufferSize = 65536)
        : pair(Kestrel::ipc::UnixDomainSocket::createPairedSocket(bufferSize, bufferSize, false)) {}

    ScopedLeakCheck leaks;  // first member: checked last
    LogCapture capture;     // before any thread starts
    Watchdog watchdog{"socket pair case", std::chrono::seconds(60)};
    FileDescriptor file = memoryFile("payload");
    Kestrel::ipc::SocketPair pair;
    const int near = pair.first.get();
    const int far = pair.second.get();
};

// The library receives on `receiver` (the near end); the test plays the peer
// with raw records on `peer`.
class RawPeerTest : public SocketPairFixture {
  protected:
    RawPeerTest() { receiver.bind(std::move(pair.first)); }

    // Queues a message's two records: a header announcing `announced` bytes
    // and the descriptors sent, then `data` with `fds`.
    void sendRaw(uint32_t id, uint32_t announced, const std::vector<uint8_t>& data,
                 const std::vector<int>& fds = {}) {
        ASSERT_TRUE(
                writeHeaderRecord(peer.get(), id, announced, static_cast<uint16_t>(fds.size())));
        ASSERT_EQ(writeRecord(peer.get(), data.data(), data.size(), fds),
                  static_cast<ssize_t>(data.size()));
    }
    // Receives message `id` and checks that it carries `data`.
    void expectMessage(uint32_t id, const std::vector<uint8_t>& data) {
        Kestrel::ipc::Message message;
        ASSERT_EQ(receiver.recv(&message), 0);
        EXPECT_EQ(message.id(), id);
        EXPECT_EQ(message.payload().data, data);
    }

    Kestrel::ipc::UnixDomainSocket receiver;
    FileDescriptor& peer = pair.second;
};

}  // namespace velacam::test
