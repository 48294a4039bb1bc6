// Fixture for both ends of a socket pair, with a log capture, a file to send,
// a watchdog and a leak check.
#pragma once

#include <gtest/gtest.h>
#include <ipc/SocketPair.h>
#include <ipc/UnixDomainSocket.h>

#include "support/Descriptors.h"
#include "support/LogCapture.h"
#include "support/RawPeer.h"
#include "support/Waiting.h"

namespace velacam::test {

class SocketPairFixture : public ::testing::Test {
  protected:
    ScopedLeakCheck leaks;  // first member: checked last
    LogCapture capture;     // before any thread starts
    Watchdog watchdog{"socket pair case", std::chrono::seconds(60)};
    FileDescriptor file = memoryFile("payload");
    Kestrel::ipc::SocketPair pair =
            Kestrel::ipc::UnixDomainSocket::createPairedSocket(65536, 65536, false);
    const int near = pair.first.get();
    const int far = pair.second.get();
};

}  // namespace velacam::test
