// Test fixture of the suites that work on the two ends of a socket pair:
// `pair` as UnixDomainSocket::createPairedSocket makes it (their numbers in
// `near` and `far`, for raw reads and socket options), a captured log and a
// file to send. Every blocking call of a case is bounded by the watchdog.
// When the whole fixture is gone, every descriptor opened since it was made
// must be closed again.
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
