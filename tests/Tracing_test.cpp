// Trace markers to a JSON trace file: two processes write one file, which
// parses, and whose flows link each message's send to its receive and
// dispatch (or reply callback) in the other process.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <ipc/CBRegistry.h>
#include <ipc/Message.h>
#include <ipc/SocketPair.h>
#include <ipc/Tracing.h>
#include <ipc/UnixDomainSocket.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "support/AnsweringServer.h"
#include "support/Descriptors.h"
#include "support/Messages.h"
#include "support/RawPeer.h"
#include "support/Waiting.h"

namespace velacam::test {
namespace {

using namespace Kestrel::ipc;

constexpr uint32_t kRequests = 3;
constexpr uint32_t kRequestType = 7;
constexpr uint32_t kReplyType = 8;

// The serving process: answers until the client hangs up, appending to the
// file the client created.
int serve(FileDescriptor&& end, const std::string& path) {
    Tracing::finish();  // the client's file, inherited: this process did not create it
    if (!Tracing::start(path.c_str())) {
        return 2;
    }
    AnsweringServer server(std::move(end), kReplyType);
    const int result = !server.start() ? 3 : !server.waitForHangUp(30s) ? 4 : 0;
    Tracing::finish();
    return result;
}

// No thread may run when the serving process is forked (a sanitizer refuses
// threads after a multi-threaded fork): the watchdog starts after the fork.
class TracingTest : public ::testing::Test {
  protected:
    TracingTest() {
        char pattern[] = "/tmp/velacam-trace-XXXXXX";
        directory = ::mkdtemp(pattern);
        path = directory + "/trace.json";
    }
    ~TracingTest() override {
        Tracing::finish();
        ::unlink(path.c_str());
        ::rmdir(directory.c_str());
    }
    ScopedLeakCheck leaks;  // checked last
    std::string directory;
    std::string path;
    Kestrel::ipc::SocketPair pair = UnixDomainSocket::createPairedSocket(65536, 65536, false);
};

TEST_F(TracingTest, TwoProcesses_WriteOneFile_WhoseFlowsLinkEachSendToTheOtherSide) {
    EXPECT_FALSE(Tracing::start((directory + "/missing/trace.json").c_str()));
    EXPECT_EQ(errno, ENOENT);
    ASSERT_FALSE(Tracing::toFile());
    ASSERT_TRUE(Tracing::start(path.c_str()));
    EXPECT_FALSE(Tracing::start(path.c_str()));
    EXPECT_EQ(errno, EBUSY);

    const pid_t peer = forkPeer([&] {
        pair.second = FileDescriptor();  // the client's end stays the client's alone
        return serve(std::move(pair.first), path);
    });
    pair.first = FileDescriptor();
    Watchdog watchdog("tracing case", std::chrono::seconds(60));
    UnixDomainSocket client;
    client.bind(std::move(pair.second));
    CBRegistry registry(1);
    int answered = 0;
    for (uint32_t id = 1; id <= kRequests; ++id) {
        roundTrip(client, registry, id, kRequestType, [&answered](uint8_t) { ++answered; });
    }
    EXPECT_EQ(answered, 3);
    client.bind(FileDescriptor());
    ASSERT_EQ(waitPeer(peer), 0);
    Tracing::finish();
    EXPECT_FALSE(Tracing::toFile());

    const std::string text =
            contentsOf(FileDescriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC), 0).get());
    ASSERT_GT(text.size(), 4u);
    EXPECT_EQ(text.substr(0, 2), "[\n");
    EXPECT_EQ(text.substr(text.size() - 3), "\n]\n");
    const std::string check = std::string("python3 ") + VELACAM_TRACE_CHECK + " " + path +
                              " --requests " + std::to_string(kRequests);
    const int status = std::system(check.c_str());
    if (WIFEXITED(status) && WEXITSTATUS(status) == 127) {
        GTEST_SKIP() << "python3 is not installed: the file was not parsed";
    }
    EXPECT_EQ(status, 0) << text;
}

}  // namespace
}  // namespace velacam::test
