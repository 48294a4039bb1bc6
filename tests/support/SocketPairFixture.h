// Test fixture for suites that drive a UnixDomainSocket against the other end
// of its pair: `receiver` is bound to the first end (its number kept in
// `rawReceiver` for raw reads and socket options), `peer` holds the second,
// for raw records or for binding to a second UnixDomainSocket. TearDown closes
// both and `file`, then reports every descriptor opened since and still open.
#pragma once

#include <gtest/gtest.h>
#include <ipc/Message.h>
#include <ipc/UnixDomainSocket.h>

#include <cstdint>
#include <utility>
#include <vector>

#include "support/Descriptors.h"
#include "support/LogCapture.h"
#include "support/RawPeer.h"

namespace velacam::test {

// A payload of `data` and `fds` (not owned).
inline Kestrel::ipc::Message::Payload payloadOf(std::vector<uint8_t> data, std::vector<int> fds) {
    Kestrel::ipc::Message::Payload payload;
    payload.data = std::move(data);
    payload.fds = std::move(fds);
    return payload;
}

class SocketPairFixture : public ::testing::Test {
  protected:
    void SetUp() override {
        Kestrel::ipc::SocketPair pair =
                Kestrel::ipc::UnixDomainSocket::createPairedSocket(65536, 65536, false);
        ASSERT_GE(pair.first.get(), 0);
        rawReceiver = pair.first.get();
        receiver.bind(std::move(pair.first));
        peer = std::move(pair.second);
    }
    void TearDown() override {
        receiver.bind(FileDescriptor());
        peer = FileDescriptor();
        file = FileDescriptor();
        leaks.check();
    }

    // Writes, as the peer, a header record announcing `dataCount` bytes and
    // `descriptorCount` descriptors.
    void announce(uint32_t dataCount, uint16_t descriptorCount) {
        ASSERT_TRUE(writeHeaderRecord(peer.get(), 1, dataCount, descriptorCount));
    }

    DescriptorLeakCheck leaks;
    LogCapture capture;  // before any thread starts
    FileDescriptor file = memoryFile("payload");
    Kestrel::ipc::UnixDomainSocket receiver;
    int rawReceiver = -1;
    FileDescriptor peer;
};

}  // namespace velacam::test
