// Poller: registration order and overwriting, removal, snapshots, the wait
// (readiness, time-out, failure, unlimited wait, restart after a signal), the
// errno conventions of an empty result, copying and concurrent use.
#include <errno.h>
#include <gtest/gtest.h>
#include <ipc/Poller.h>
#include <ipc/utils/Log.h>
#include <pthread.h>
#include <signal.h>
#include <sysutils/FileDescriptor.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "support/Descriptors.h"
#include "support/LogCapture.h"
#include "support/Waiting.h"

namespace {

using Kestrel::ipc::Poller;
using Kestrel::ipc::utils::durationToTimespec;
using Kestrel::utils::sys::FileDescriptor;
using velacam::test::LogCapture;
using velacam::test::Watchdog;
using namespace std::chrono_literals;
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

    bool debugLogged() const { return Kestrel::ipc::utils::LogSetting::logLevel() >= 1; }

    velacam::test::DescriptorLeakCheck leaks;
    LogCapture capture;  // before any thread starts
};

TEST(DurationToTimespec, SplitsSecondsAndNanosecondsWithTruncation) {
    const timespec positive = durationToTimespec(1500000000ns);
    EXPECT_EQ(positive.tv_sec, 1);
    EXPECT_EQ(positive.tv_nsec, 500000000);
    const timespec negative = durationToTimespec(-1500000000ns);
    EXPECT_EQ(negative.tv_sec, -1);
    EXPECT_EQ(negative.tv_nsec, -500000000);
    const timespec small = durationToTimespec(-999ns);
    EXPECT_EQ(small.tv_sec, 0);
    EXPECT_EQ(small.tv_nsec, -999);
}

TEST_F(PollerTest, RegisterOverwritesInPlaceAndUnregisterKeepsTheOrder) {
    Poller poller;
    poller.registerPollEvent(7, POLLIN);
    poller.registerPollEvent(9, POLLPRI);
    poller.registerPollEvent(7, POLLOUT);
    EXPECT_EQ(poller.registeredPollEvents(), (Events{{7, POLLOUT}, {9, POLLPRI}}));
    if (debugLogged()) {
        EXPECT_EQ(capture.count("[registerPollEvent] fd(7) registered"), 1u);
        EXPECT_EQ(capture.count("[registerPollEvent] fd(7) is registered before, overwrites it"),
                  1u);
    }

    // Removal keeps the others in order and refuses an unknown descriptor.
    poller.clear();
    EXPECT_TRUE(poller.registeredPollEvents().empty());
    poller.registerPollEvent(3, POLLIN);
    poller.registerPollEvent(4, POLLOUT);
    poller.registerPollEvent(5, POLLIN);
    capture.clear();
    EXPECT_TRUE(poller.unregisterPollEvent(4));
    EXPECT_EQ(poller.registeredPollEvents(), (Events{{3, POLLIN}, {5, POLLIN}}));
    if (debugLogged()) {
        // The table before and after the removal.
        std::vector<std::string> texts;
        for (const auto& line : capture.lines()) {
            texts.push_back(line.text);
        }
        EXPECT_EQ(texts, (std::vector<std::string>{
                                 "[dump] fd(3) events(1) revents(0)",
                                 "[dump] fd(4) events(4) revents(0)",
                                 "[dump] fd(5) events(1) revents(0)",
                                 "[unregisterPollEvent] fd(4) is unregistered",
                                 "[dump] fd(3) events(1) revents(0)",
                                 "[dump] fd(5) events(1) revents(0)",
                         }));
    }
    capture.clear();
    EXPECT_FALSE(poller.unregisterPollEvent(4));
    ASSERT_EQ(capture.lines().size(), 1u);
    EXPECT_EQ(capture.lines()[0].text, "fd(4) is not registered before, do nothing");
    EXPECT_EQ(capture.lines()[0].level, 2u);
    EXPECT_EQ(poller.registeredPollEvents().size(), 2u);
}

TEST_F(PollerTest, PollOnEmptySet_ReturnsAtOnceWithErrnoUntouched) {
    Poller poller;
    poller.dump();
    EXPECT_EQ(capture.count("mPollfds is empty"), 1u);
    errno = 12345;
    EXPECT_TRUE(poller.poll(0ms).empty());  // 0 would wait forever if it reached ppoll
    EXPECT_EQ(errno, 12345);
    EXPECT_EQ(capture.count("no available registered file descriptor, do nothing"), 1u);
}

// Every entry is reported in registration order, idle ones too, and a closed
// peer's hang-up even with an empty mask.
TEST_F(PollerTest, PollReportsEveryEntryInOrderIncludingIdleOnes) {
    Pipe a, b, c, d;
    b.signal();
    d.writeEnd = FileDescriptor();
    Poller poller;
    poller.registerPollEvent(c.readEnd.get(), POLLIN);
    poller.registerPollEvent(b.readEnd.get(), POLLIN);
    poller.registerPollEvent(a.readEnd.get(), POLLIN);
    poller.registerPollEvent(d.readEnd.get(), 0);
    const Events result = poller.poll(1000ms);
    EXPECT_EQ(result, (Events{{c.readEnd.get(), 0},
                              {b.readEnd.get(), POLLIN},
                              {a.readEnd.get(), 0},
                              {d.readEnd.get(), POLLHUP}}));
    // The stored entries are not written by a wait.
    Poller copy(poller);
    EXPECT_EQ(copy.registeredPollEvents(), poller.registeredPollEvents());
}

TEST_F(PollerTest, PollTimeOutAndFailure_GiveEmptyResultsWithTheirErrno) {
    Pipe idle;
    Poller poller;
    poller.registerPollEvent(idle.readEnd.get(), POLLIN);
    errno = 0;
    EXPECT_TRUE(poller.poll(1ms).empty());
    EXPECT_EQ(errno, ETIME);
    if (debugLogged()) {
        EXPECT_EQ(capture.count("[poll] pollfds size(1) timeout sec(0) nsec(1000000)"), 1u);
        EXPECT_EQ(capture.count("[poll] ppoll() timed out and no file descriptors were "
                                "ready(Timer expired) errno(62)"),
                  1u);
    }

    // A failed wait: empty too, with the call's errno.
    EXPECT_TRUE(poller.poll(-5ms).empty());  // a negative time-out is rejected by ppoll
    EXPECT_EQ(errno, EINVAL);
    ASSERT_EQ(capture.count("ppoll() failed(Invalid argument) errno(22)"), 1u);
    EXPECT_EQ(capture.lines().back().level, 1u);
}

TEST_F(PollerTest, ZeroTimeout_WaitsUntilTheDescriptorIsReady) {
    Pipe pipe;
    Poller poller;
    poller.registerPollEvent(pipe.readEnd.get(), POLLIN);
    Watchdog watchdog("unlimited poll", 20s);
    auto waiting = std::async(std::launch::async, [&] { return poller.poll(0ms); });
    // Registrations during the wait do not reach it; they need the lock, which
    // the wait does not hold.
    ASSERT_TRUE(velacam::test::waitUntil([&] { return capture.contains("pollfds size(1)"); }) ||
                !debugLogged());
    Pipe other;
    poller.registerPollEvent(other.readEnd.get(), POLLIN);
    EXPECT_EQ(waiting.wait_for(0ms), std::future_status::timeout);
    pipe.signal();
    EXPECT_EQ(waiting.get(), (Events{{pipe.readEnd.get(), POLLIN}}));
    EXPECT_EQ(poller.registeredPollEvents().size(), 2u);
}

std::atomic<int> sSignals{0};
void onSignal(int) { sSignals.fetch_add(1); }

TEST_F(PollerTest, SignalDuringTheWait_RestartsItWithTheFullTimeout) {
    if (!debugLogged()) {
        GTEST_SKIP() << "the restart is observed through the debug line";
    }
    struct sigaction action {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    struct sigaction previous {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, &previous), 0);

    Pipe pipe;
    Poller poller;
    poller.registerPollEvent(pipe.readEnd.get(), POLLIN);
    const std::string line = "[poll] pollfds size(1) timeout sec(60) nsec(0)";
    Watchdog watchdog("interrupted poll", 30s);
    std::promise<pthread_t> started;
    auto waiting = std::async(std::launch::async, [&] {
        started.set_value(pthread_self());
        return poller.poll(60000ms);
    });
    const pthread_t waiter = started.get_future().get();
    ASSERT_TRUE(capture.waitFor(line, 1));
    // A signal sent before the thread enters ppoll interrupts nothing: repeat
    // until the wait has visibly started over.
    bool restarted = false;
    for (int attempt = 0; attempt < 500 && !restarted; ++attempt) {
        ASSERT_EQ(pthread_kill(waiter, SIGUSR1), 0);
        restarted = capture.waitFor(line, 2, 10ms);
    }
    ASSERT_TRUE(restarted);
    EXPECT_EQ(waiting.wait_for(0ms), std::future_status::timeout);
    pipe.signal();
    EXPECT_EQ(waiting.get(), (Events{{pipe.readEnd.get(), POLLIN}}));
    EXPECT_GE(sSignals.load(), 1);
    EXPECT_EQ(capture.countContaining("ppoll() failed"), 0u);
    sigaction(SIGUSR1, &previous, nullptr);
}

TEST_F(PollerTest, CopiesAreIndependent) {
    Poller source;
    source.registerPollEvent(3, POLLIN);
    Poller copy(source);
    Poller assigned;
    assigned.registerPollEvent(9, POLLOUT);
    assigned = source;
    source.registerPollEvent(4, POLLOUT);
    EXPECT_EQ(copy.registeredPollEvents(), (Events{{3, POLLIN}}));
    EXPECT_EQ(assigned.registeredPollEvents(), (Events{{3, POLLIN}}));
    const Poller& self = assigned;
    assigned = self;
    EXPECT_EQ(assigned.registeredPollEvents(), (Events{{3, POLLIN}}));
}

TEST_F(PollerTest, CrossedCopyAssignmentsFromTwoThreadsDoNotDeadlock) {
    // Many short assignments crossing each other: taking the two locks one
    // after the other would sooner or later deadlock here.
    Poller a;
    Poller b;
    for (int fd = 0; fd < 4; ++fd) {
        a.registerPollEvent(fd, POLLIN);
        b.registerPollEvent(fd + 4, POLLOUT);
    }
    Watchdog watchdog("crossed assignments", 30s);
    std::atomic<int> started{0};
    auto startTogether = [&started] {
        started.fetch_add(1);
        while (started.load() < 2) {
        }
    };
    std::thread first([&] {
        startTogether();
        for (int i = 0; i < 50000; ++i) {
            a = b;
        }
    });
    std::thread second([&] {
        startTogether();
        for (int i = 0; i < 50000; ++i) {
            b = a;
            b.registerPollEvent(5, POLLIN);
        }
    });
    first.join();
    second.join();
    EXPECT_FALSE(a.registeredPollEvents().empty());
}

}  // namespace
