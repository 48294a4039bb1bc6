// Poller: registration order and overwriting, removal, the wait (readiness,
// time-out, failure, unlimited wait) and the errno conventions of an empty
// result.
#include <errno.h>
#include <gtest/gtest.h>
#include <ipc/Poller.h>
#include <sysutils/FileDescriptor.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <string>
#include <vector>

#include "support/Descriptors.h"
#include "support/LogChecks.h"
#include "support/Waiting.h"

namespace {

using namespace Kestrel::ipc;
using namespace velacam::test;
using Kestrel::utils::sys::FileDescriptor;
using Events = std::vector<Poller::PollEvent>;

struct Pipe {
    Pipe() {
        int ends[2];
        EXPECT_EQ(::pipe(ends), 0);
        readEnd = FileDescriptor(ends[0], 0);
        writeEnd = FileDescriptor(ends[1], 0);
    }
    void signal() const { ASSERT_EQ(::write(writeEnd.get(), "x", 1), 1); }

    FileDescriptor readEnd;
    FileDescriptor writeEnd;
};

class PollerTest : public ::testing::Test {
  protected:
    void TearDown() override { leaks.check(); }

    DescriptorLeakCheck leaks;
    LogCapture capture;  // before any thread starts
    Poller poller;
};

TEST(DurationToTimespec, SplitsSecondsAndNanosecondsWithTruncation) {
    const struct {
        std::chrono::nanoseconds duration;
        long seconds;
        long nanoseconds;
    } cases[] = {{1500000000ns, 1, 500000000}, {-1500000000ns, -1, -500000000}, {-999ns, 0, -999}};
    for (const auto& c : cases) {
        const timespec converted = Kestrel::ipc::utils::durationToTimespec(c.duration);
        EXPECT_EQ(converted.tv_sec, c.seconds) << c.duration.count();
        EXPECT_EQ(converted.tv_nsec, c.nanoseconds) << c.duration.count();
    }
}

TEST_F(PollerTest, RegisterOverwritesInPlaceAndUnregisterKeepsTheOrder) {
    // Empty: a wait returns at once with errno untouched (0 would wait forever
    // if it reached ppoll).
    poller.dump();
    errno = 12345;
    EXPECT_TRUE(poller.poll(0ms).empty());
    EXPECT_EQ(errno, 12345);
    expectEachOnce(capture,
                   {"mPollfds is empty", "no available registered file descriptor, do nothing"});

    poller.registerPollEvent(7, POLLIN);
    poller.registerPollEvent(9, POLLPRI);
    poller.registerPollEvent(7, POLLOUT);
    poller.registerPollEvent(5, POLLIN);
    EXPECT_EQ(poller.registeredPollEvents(), (Events{{7, POLLOUT}, {9, POLLPRI}, {5, POLLIN}}));
    expectDebugLinesOnce(capture,
                         {"[registerPollEvent] fd(7) registered",
                          "[registerPollEvent] fd(7) is registered before, overwrites it"});

    capture.clear();
    EXPECT_TRUE(poller.unregisterPollEvent(9));
    EXPECT_EQ(poller.registeredPollEvents(), (Events{{7, POLLOUT}, {5, POLLIN}}));
    if (debugLogged()) {  // the table before and after the removal
        EXPECT_EQ(capture.texts(), (std::vector<std::string>{
                                           "[dump] fd(7) events(4) revents(0)",
                                           "[dump] fd(9) events(2) revents(0)",
                                           "[dump] fd(5) events(1) revents(0)",
                                           "[unregisterPollEvent] fd(9) is unregistered",
                                           "[dump] fd(7) events(4) revents(0)",
                                           "[dump] fd(5) events(1) revents(0)",
                                   }));
    }
    capture.clear();
    EXPECT_FALSE(poller.unregisterPollEvent(9));
    ASSERT_EQ(capture.lines().size(), 1u);
    EXPECT_EQ(capture.lines()[0].text, "fd(9) is not registered before, do nothing");
    EXPECT_EQ(capture.lines()[0].level, 2u);
    EXPECT_EQ(poller.registeredPollEvents().size(), 2u);
    poller.clear();
    EXPECT_TRUE(poller.registeredPollEvents().empty());
}

// Every entry is reported in registration order, idle ones too, and a closed
// peer's hang-up even with an empty mask; an empty result is told apart by
// errno only.
TEST_F(PollerTest, PollReportsEveryEntryInOrderOrAnEmptyResultWithItsErrno) {
    Pipe a, b, c, d;
    b.signal();
    d.writeEnd = FileDescriptor();
    poller.registerPollEvent(c.readEnd.get(), POLLIN);
    poller.registerPollEvent(b.readEnd.get(), POLLIN);
    poller.registerPollEvent(a.readEnd.get(), POLLIN);
    poller.registerPollEvent(d.readEnd.get(), 0);
    EXPECT_EQ(poller.poll(1000ms), (Events{{c.readEnd.get(), 0},
                                           {b.readEnd.get(), POLLIN},
                                           {a.readEnd.get(), 0},
                                           {d.readEnd.get(), POLLHUP}}));

    ASSERT_TRUE(poller.unregisterPollEvent(b.readEnd.get()));
    ASSERT_TRUE(poller.unregisterPollEvent(d.readEnd.get()));
    errno = 0;
    EXPECT_TRUE(poller.poll(1ms).empty());
    EXPECT_EQ(errno, ETIME);
    expectDebugLinesOnce(capture, {"[poll] pollfds size(2) timeout sec(0) nsec(1000000)",
                                   "[poll] ppoll() timed out and no file descriptors were "
                                   "ready(Timer expired) errno(62)"});
    EXPECT_TRUE(poller.poll(-5ms).empty());  // a negative time-out is rejected by ppoll
    EXPECT_EQ(errno, EINVAL);
    ASSERT_EQ(capture.count("ppoll() failed(Invalid argument) errno(22)"), 1u);
    EXPECT_EQ(capture.lines().back().level, 1u);
}

TEST_F(PollerTest, ZeroTimeout_WaitsUntilTheDescriptorIsReady) {
    Pipe pipe;
    poller.registerPollEvent(pipe.readEnd.get(), POLLIN);
    Watchdog watchdog("unlimited poll", 20s);
    auto waiting = std::async(std::launch::async, [&] { return poller.poll(0ms); });
    // Registrations during the wait do not reach it; they need the lock, which
    // the wait does not hold.
    ASSERT_TRUE(waitUntil([&] { return capture.contains("pollfds size(1)"); }) || !debugLogged());
    Pipe other;
    poller.registerPollEvent(other.readEnd.get(), POLLIN);
    EXPECT_EQ(waiting.wait_for(0ms), std::future_status::timeout);
    pipe.signal();
    EXPECT_EQ(waiting.get(), (Events{{pipe.readEnd.get(), POLLIN}}));
    EXPECT_EQ(poller.registeredPollEvents().size(), 2u);
}

}  // namespace
