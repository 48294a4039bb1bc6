#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <ipc/Poller.h>
#include <sysutils/FileDescriptor.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "support/Descriptors.h"
#include "support/EventFdHandler.h"
#include "support/LogCapture.h"
#include "support/Waiting.h"

namespace {

using namespace Kestrel::ipc;
using namespace velacam::test;
using Kestrel::utils::sys::FileDescriptor;
using Events = std::vector<Poller::PollEvent>;

class PollerTest : public ::testing::Test {
  protected:
    ScopedLeakCheck leaks;
    LogCapture capture;  // before any thread starts
    Watchdog watchdog{"poller case", 30s};
    Poller poller;
};

// Idle entries too, and a closed peer's hang-up even with an empty mask.
TEST_F(PollerTest, PollReportsEveryEntryInOrderOrAnEmptyResultWithItsErrno) {
    errno = 12345;  // nothing registered: returns at once (0 would wait forever in ppoll)
    EXPECT_TRUE(poller.poll(0ms).empty());
    EXPECT_EQ(errno, 12345);
    EXPECT_EQ(capture.count("no available registered file descriptor, do nothing"), 1u);

    const EventFdHandler a, b, c;
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    const FileDescriptor d(ends[0], 0);
    ::close(ends[1]);  // gone: the pipe hangs up
    b.ring();
    poller.registerPollEvent(c.fd(), POLLOUT);  // writable: replaced in place below
    poller.registerPollEvent(b.fd(), POLLIN);
    poller.registerPollEvent(a.fd(), POLLIN);
    poller.registerPollEvent(c.fd(), POLLIN);
    poller.registerPollEvent(d.get(), 0);
    EXPECT_EQ(poller.poll(1000ms),
              (Events{{c.fd(), 0}, {b.fd(), POLLIN}, {a.fd(), 0}, {d.get(), POLLHUP}}));

    ASSERT_TRUE(poller.unregisterPollEvent(b.fd()));
    EXPECT_EQ(poller.registeredPollEvents(),
              (Events{{c.fd(), POLLIN}, {a.fd(), POLLIN}, {d.get(), 0}}));
    EXPECT_FALSE(poller.unregisterPollEvent(b.fd()));
    EXPECT_EQ(capture.levelOf("fd(" + std::to_string(b.fd()) +
                              ") is not registered before, do nothing"),
              2u);
    ASSERT_TRUE(poller.unregisterPollEvent(d.get()));
    errno = 0;
    EXPECT_TRUE(poller.poll(1ms).empty());
    EXPECT_EQ(errno, ETIME);
    EXPECT_TRUE(poller.poll(-5ms).empty());  // a negative time-out is rejected by ppoll
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(capture.levelOf("ppoll() failed(Invalid argument) errno(22)"), 1u);
}

// A registration made during the wait neither blocks nor reaches it.
TEST_F(PollerTest, ZeroTimeout_WaitsUntilTheDescriptorIsReady) {
    const EventFdHandler ready, other;
    poller.registerPollEvent(ready.fd(), POLLIN);
    auto waiting = startBlocked([&] { return poller.poll(0ms); });
    poller.registerPollEvent(other.fd(), POLLIN);
    other.ring();
    ready.ring();
    EXPECT_EQ(waiting.get(), (Events{{ready.fd(), POLLIN}}));
    EXPECT_EQ(poller.registeredPollEvents().size(), 2u);
}

}  // namespace
