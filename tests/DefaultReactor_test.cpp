// DefaultReactor: the start gate, the cycle, dispatch rules, exit, and
// registration from any thread; the fatal checks in their own suite.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <ipc/DefaultReactor.h>
#include <ipc/EventHandler.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/Descriptors.h"
#include "support/EventFdHandler.h"
#include "support/LogChecks.h"
#include "support/RawPeer.h"
#include "support/ReactorThread.h"
#include "support/Waiting.h"

namespace {

using namespace Kestrel::ipc;
using namespace velacam::test;

// Watches a descriptor it does not own, counts its calls and runs `onEvent`
// on each (on the reactor's thread). It never reads: a ready descriptor stays
// ready, so tests use it for one cycle only.
class CountingHandler : public EventHandler {
  public:
    CountingHandler(int fd, EventType type, std::function<void()> onEvent = {})
        : EventHandler(fd, type), mOnEvent(std::move(onEvent)) {}
    void handleEvent() override {
        ++calls;
        if (mOnEvent) {
            mOnEvent();
        }
    }
    std::atomic<int> calls{0};

  private:
    std::function<void()> mOnEvent;
};

std::string line(const char* format, int value) {
    char text[128];
    std::snprintf(text, sizeof(text), format, value);
    return text;
}

class DefaultReactorTest : public DebugLogTest {
  protected:
    void startLoop(std::chrono::milliseconds timeout = 0ms) { loop.emplace(*reactor, timeout); }
    void stopLoop() { loop.reset(); }

    Watchdog watchdog{"DefaultReactor test", 30s};
    std::unique_ptr<DefaultReactor> reactor = std::make_unique<DefaultReactor>();
    std::optional<ReactorThread> loop;
};

// An exit requested before loop() ends it after one cycle, in which every
// other ready handler still runs, in ascending descriptor order, and one that
// wants writing is not called for a descriptor that is only readable. The
// exit descriptor is closed with the reactor.
TEST_F(DefaultReactorTest, ExitRequestedBeforeLoopEndsItAfterOneCycleOfDispatch) {
    reactor.reset();
    ScopedLeakCheck leaks;  // checked when everything below has gone
    reactor = std::make_unique<DefaultReactor>();
    EXPECT_FALSE(reactor->handleExitEvent({-1, POLLOUT}));  // no POLLIN: not an exit

    int ends[2];  // a pipe whose read end holds a byte: readable, never writable
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const FileDescriptor readEnd(ends[0], 0);
    const FileDescriptor writeEnd(ends[1], 0);
    ASSERT_EQ(write(writeEnd.get(), "x", 1), 1);
    auto writer = std::make_shared<CountingHandler>(readEnd.get(), EventType::WRITE);
    ASSERT_TRUE(reactor->registerEventHandler(writer));

    std::vector<EventFdHandler> sources(4);
    std::vector<int> order;  // appended on the loop's thread only
    std::vector<std::shared_ptr<CountingHandler>> readers;
    for (auto it = sources.rbegin(); it != sources.rend(); ++it) {  // in descending order
        const int fd = it->fd();
        readers.push_back(std::make_shared<CountingHandler>(fd, EventType::READ,
                                                            [&order, fd] { order.push_back(fd); }));
        ASSERT_TRUE(reactor->registerEventHandler(readers.back()));
        it->ring();
    }
    reactor->requestExit();
    reactor->loop(0ms);

    ASSERT_EQ(order.size(), 4u);
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
    EXPECT_EQ(writer->calls.load(), 0);
    expectEachOnce(capture,
                   {"[requestExit] bytes_sent(8)", "[loop] (1)",
                    "[loop] The registered PollEvent count(6) timeout milliseconds(0)",
                    line("fd(%d): skip output event with zero revents fields", readEnd.get()),
                    "[handleExitEvent] exit event happened", "[loop] reactor exits now"});
    const auto lines = capture.lines();
    const auto indexOf = [&lines](const std::string& text) {
        return std::find_if(lines.begin(), lines.end(),
                            [&](const auto& logged) { return logged.text == text; }) -
               lines.begin();
    };
    EXPECT_LT(indexOf(line("[handlePollEvent] dispatch to event handler(fd:%d)", order.back())),
              indexOf("[loop] reactor exits now"));

    // Dispatch itself checks the wanted bits against what was reported.
    reactor->handlePollEvent({{readEnd.get(), POLLIN}}, {writer});
    EXPECT_EQ(writer->calls.load(), 0);
    EXPECT_EQ(capture.count(
                      line("event handler (fd:%d) cannot handle poll events (1)", readEnd.get())),
              1u);
    reactor->handlePollEvent({{readEnd.get(), POLLIN | POLLOUT}}, {writer});
    EXPECT_EQ(writer->calls.load(), 1);
    reactor.reset();
}

// A handler dropped by its owner is removed as expired, never dispatched,
// while the loop goes on; idle cycles with a time-out log a warning.
TEST_F(DefaultReactorTest, DroppedHandlerIsRemovedAsExpiredAndIdleCyclesTimeOut) {
    auto kept = std::make_shared<EventFdHandler>();
    const EventFdHandler droppedSource;  // the descriptor outlives its handler
    const int droppedFd = droppedSource.fd();
    auto dropped = std::make_shared<CountingHandler>(droppedFd, EventType::READ);
    ASSERT_TRUE(reactor->registerEventHandler(kept));
    ASSERT_TRUE(reactor->registerEventHandler(dropped));
    dropped.reset();
    droppedSource.ring();  // ready, but nobody may be called for it

    startLoop(100ms);
    ASSERT_TRUE(capture.waitFor(line("handler(key: %d) expired, remove it", droppedFd)));
    ASSERT_TRUE(
            capture.waitFor(line("[removeEventHandlerByFd] handler(key: %d) removed", droppedFd)));
    ASSERT_TRUE(capture.waitFor("poll timed out", 2));
    EXPECT_EQ(kept->calls.load(), 0);
    kept->ring();
    ASSERT_TRUE(waitUntil([&] { return kept->calls.load() == 1; }));
    stopLoop();
    EXPECT_EQ(capture.count(line("handler(key: %d) expired, remove it", droppedFd)), 1u);
    EXPECT_EQ(capture.countContaining(line("dispatch to event handler(fd:%d)", droppedFd)), 0u);
    EXPECT_GE(capture.count("[loop] The registered PollEvent count(2) timeout milliseconds(100)"),
              2u);
    EXPECT_EQ(capture.levelsOf("poll timed out"), std::set<uint32_t>{2});
    EXPECT_FALSE(reactor->removeEventHandlerByFd(droppedFd));
    EXPECT_EQ(capture.count(line("handler(key: %d) does not registered before", droppedFd)), 1u);
}

// The loop waits at its start gate for the first registration. An expired
// handler is refused and does not open the gate; a duplicate key is refused
// and does.
TEST_F(DefaultReactorTest, LoopWaitsForTheFirstRegistrationAndRefusals) {
    startLoop();
    ASSERT_TRUE(capture.waitFor("[loop] Block to wait for signal"));
    auto gone = std::make_shared<CountingHandler>(5, EventType::READ);
    std::weak_ptr<EventHandler> expired = gone;
    gone.reset();
    EXPECT_FALSE(reactor->registerEventHandler(expired));
    EXPECT_FALSE(reactor->removeEventHandler(expired));
    EXPECT_EQ(capture.count("event handler is expired"), 2u);
    EXPECT_FALSE(reactor->removeEventHandlerByFd(5));
    EXPECT_EQ(capture.count("handler(key: 5) does not registered before"), 1u);
    auto first = std::make_shared<EventFdHandler>();
    first->ring();
    std::this_thread::sleep_for(50ms);  // a window in which it must stay blocked
    EXPECT_EQ(capture.countContaining("Release Semaphore of Reactor"), 0u);
    EXPECT_EQ(capture.count("[loop] Being signaled"), 0u);
    EXPECT_EQ(capture.count("[loop] (1)"), 0u);

    const int fd = first->fd();
    auto second = std::make_shared<CountingHandler>(fd, EventType::READ);
    ASSERT_TRUE(reactor->registerEventHandler(first));
    EXPECT_FALSE(reactor->registerEventHandler(second));
    const std::string warning = line("handler(key: %d) already existed", fd);
    EXPECT_EQ(capture.levelsOf(warning), std::set<uint32_t>{2});
    expectEachOnce(capture,
                   {warning, line("[registerEventHandler] handler(key: %d) registered", fd)});
    EXPECT_EQ(capture.count("[registerEventHandler] Release Semaphore of Reactor"), 2u);
    ASSERT_TRUE(waitUntil([&] { return first->calls.load() == 1; }));
    stopLoop();
    EXPECT_EQ(capture.count(line("[handlePollEvent] dispatch to event handler(fd:%d)", fd)), 1u);
    EXPECT_EQ(second->calls.load(), 0);
}

// Handlers register and remove handlers from inside handleEvent() while other
// threads do the same; a deadlock trips the watchdog.
TEST_F(DefaultReactorTest, RegistrationAndRemovalFromAnyThreadAndFromInsideHandlers) {
    const EventFdHandler selfSource;
    auto next = std::make_shared<EventFdHandler>();
    std::shared_ptr<CountingHandler> self;
    self = std::make_shared<CountingHandler>(selfSource.fd(), EventType::READ, [&] {
        EXPECT_TRUE(reactor->registerEventHandler(next));
        EXPECT_TRUE(reactor->removeEventHandler(self));
        next->ring();
    });
    ASSERT_TRUE(reactor->registerEventHandler(self));
    startLoop();

    std::vector<std::thread> churners;
    for (int churner = 0; churner < 2; ++churner) {
        churners.emplace_back([this] {
            auto handler = std::make_shared<EventFdHandler>();
            for (int i = 0; i < 200; ++i) {
                EXPECT_TRUE(reactor->registerEventHandler(handler));
                if (i % 10 == 0) {
                    handler->ring();
                }
                EXPECT_TRUE(reactor->removeEventHandlerByFd(handler->fd()));
            }
        });
    }
    selfSource.ring();
    ASSERT_TRUE(waitUntil([&] { return next->calls.load() >= 1; }));
    for (auto& churner : churners) {
        churner.join();
    }
    stopLoop();
    EXPECT_EQ(self->calls.load(), 1);
}

// An exit request that comes before, together with or just after the start
// of loop() always ends it: many rounds, meant to be run under TSan.
enum class ExitTiming { kBefore, kTogether, kAfterStart };

// One reactor, one loop thread, one exit request at `timing`; with or without
// a handler that keeps the loop cycling.
void runOneRound(ExitTiming timing, bool withHandler, int jitter, LogCapture& capture) {
    capture.clear();
    DefaultReactor reactor;
    auto handler = std::make_shared<EventFdHandler>(EventFdHandler::Readiness::kAlwaysReady);
    if (withHandler) {
        ASSERT_TRUE(reactor.registerEventHandler(handler));
    }
    if (timing == ExitTiming::kBefore) {
        reactor.requestExit();
    }
    std::atomic<bool> go{false};
    const auto awaitGo = [&go] {
        while (!go.load()) {
            std::this_thread::yield();
        }
    };
    std::thread loopThread([&] {
        awaitGo();
        reactor.loop(0ms);
    });
    std::thread requester([&] {
        awaitGo();
        if (timing == ExitTiming::kTogether) {
            for (int i = 0; i < jitter; ++i) {
                std::this_thread::yield();
            }
            reactor.requestExit();
        } else if (timing == ExitTiming::kAfterStart) {  // at the gate, or cycling
            EXPECT_TRUE(capture.waitFor(withHandler ? "[handlePollEvent] dispatch"
                                                    : "[loop] Block to wait for signal"));
            reactor.requestExit();
        }
    });
    go = true;
    requester.join();
    loopThread.join();
    EXPECT_EQ(capture.count("[loop] reactor exits now"), 1u);
    if (timing == ExitTiming::kBefore && !withHandler) {  // no wait for a handler either
        EXPECT_EQ(capture.count("[loop] (1)"), 1u);
        EXPECT_EQ(capture.count("no available handlers, continue to wait..."), 0u);
    }
}

using ReactorExitTimingTest = DebugLogTest;

TEST_F(ReactorExitTimingTest,
       ExitRequestedBeforeTogetherWithOrJustAfterTheStart_AlwaysEndsTheLoop) {
    ScopedLeakCheck leaks;
    Watchdog watchdog{"exit timing rounds", 120s};
    for (int round = 0; round < 100; ++round) {
        for (const ExitTiming timing :
             {ExitTiming::kBefore, ExitTiming::kTogether, ExitTiming::kAfterStart}) {
            runOneRound(timing, round % 2 == 0, round % 40, capture);
            if (HasFailure()) {
                FAIL() << "round " << round << ", timing " << static_cast<int>(timing);
            }
        }
    }
}

// The fatal checks, each with its exact text.
TEST(DefaultReactorDeathTest, InconsistentDispatchOrUnreadableExitEventAborts) {
    DefaultReactor reactor;
    auto seven = std::make_shared<CountingHandler>(7, EventType::READ);
    auto five = std::make_shared<CountingHandler>(5, EventType::READ);
    EXPECT_DEATH(reactor.handlePollEvent({}, {seven, five}),
                 "ascendingActiveHandlers is not in ascending order: \\{ 7 5 \\}");
    EXPECT_DEATH(reactor.handlePollEvent({{9, POLLIN}}, {five}),
                 "cannot find event handler \\(fd:9\\)");
    EXPECT_DEATH(reactor.handlePollEvent({{9, POLLIN}}, {}),
                 "cannot find event handler \\(fd:9\\)");
    EXPECT_DEATH(reactor.handleExitEvent({-1, POLLIN}),
                 "handle exit event failed \\(Resource temporarily unavailable\\)");
}

// Leaves no descriptor to spare, then makes a reactor (one made first: the
// undefined-behaviour checker needs a descriptor to check a new type).
void constructWithoutDescriptorsToSpare() {
    { DefaultReactor first; }
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_NOFILE, &none);
    DefaultReactor reactor;
}

TEST(DefaultReactorDeathTest, ExitDescriptorThatCannotBeMadeAborts) {
    EXPECT_DEATH(constructWithoutDescriptorsToSpare(),
                 "create event notification failed \\(Too many open files\\)");
}

}  // namespace
