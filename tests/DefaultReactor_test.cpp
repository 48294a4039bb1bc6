// DefaultReactor: the start gate, the cycle, dispatch rules, exit, and
// registration from any thread; the fatal checks in their own suite.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <ipc/DefaultReactor.h>
#include <ipc/EventHandler.h>
#include <ipc/utils/Log.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sysutils/FileDescriptor.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/Descriptors.h"
#include "support/LogChecks.h"
#include "support/ReactorThread.h"
#include "support/Waiting.h"

namespace {

using namespace Kestrel::ipc;
using namespace velacam::test;
using Kestrel::utils::sys::FileDescriptor;

// An eventfd that tests make readable with signal() and drain().
class Event {
  public:
    Event() : mFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), 0) {}
    int fd() const { return mFd.get(); }
    void signal() const {
        const uint64_t one = 1;
        EXPECT_EQ(write(mFd.get(), &one, sizeof(one)), static_cast<ssize_t>(sizeof(one)));
    }
    void drain() const {
        uint64_t value = 0;
        (void)read(mFd.get(), &value, sizeof(value));
    }

  private:
    FileDescriptor mFd;
};

// Watches a descriptor it does not own, counts its calls and runs `onEvent`
// on each (on the reactor's thread).
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

std::shared_ptr<CountingHandler> drainingHandler(const Event& event) {
    return std::make_shared<CountingHandler>(event.fd(), EventType::READ,
                                             [source = &event] { source->drain(); });
}

std::string line(const char* format, int value) {
    char text[128];
    std::snprintf(text, sizeof(text), format, value);
    return text;
}

// The levels `text` was logged at.
std::set<uint32_t> levelsOf(const LogCapture& capture, const std::string& text) {
    std::set<uint32_t> levels;
    for (const auto& logged : capture.lines()) {
        if (logged.text == text) {
            levels.insert(logged.level);
        }
    }
    return levels;
}

// A pipe whose read end holds one byte: readable, never writable.
struct FilledPipe {
    FilledPipe() {
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        readEnd = FileDescriptor(ends[0], 0);
        writeEnd = FileDescriptor(ends[1], 0);
        EXPECT_EQ(write(writeEnd.get(), "x", 1), 1);
    }
    FileDescriptor readEnd;
    FileDescriptor writeEnd;
};

class DefaultReactorTest : public DebugLogTest {
  protected:
    void startLoop(std::chrono::milliseconds timeout = 0ms) { loop.emplace(*reactor, timeout); }
    void stopLoop() { loop.reset(); }

    Watchdog watchdog{"DefaultReactor test", 30s};
    std::unique_ptr<DefaultReactor> reactor = std::make_unique<DefaultReactor>();
    std::optional<ReactorThread> loop;
};

TEST_F(DefaultReactorTest, LoopWaitsForTheFirstRegistration) {
    Event event;
    auto handler = drainingHandler(event);
    event.signal();
    startLoop();
    ASSERT_TRUE(capture.waitFor("[loop] Block to wait for signal"));
    std::this_thread::sleep_for(50ms);  // a window in which it must stay blocked
    EXPECT_EQ(capture.count("[loop] Being signaled"), 0u);
    EXPECT_EQ(capture.count("[loop] (1)"), 0u);

    ASSERT_TRUE(reactor->registerEventHandler(handler));
    EXPECT_EQ(capture.count(line("[registerEventHandler] handler(key: %d) registered", event.fd())),
              1u);
    EXPECT_EQ(capture.count("[registerEventHandler] Release Semaphore of Reactor"), 1u);
    ASSERT_TRUE(waitUntil([&] { return handler->calls.load() == 1; }));
    stopLoop();
    EXPECT_EQ(capture.count(line("[handlePollEvent] dispatch to event handler(fd:%d)", event.fd())),
              1u);
}

TEST_F(DefaultReactorTest, ExitRequestedBeforeLoopEndsItAfterOneCycleAndLeavesNothingOpen) {
    reactor.reset();
    DescriptorLeakCheck leaks;
    reactor = std::make_unique<DefaultReactor>();
    EXPECT_FALSE(reactor->handleExitEvent({-1, POLLOUT}));  // no POLLIN: not an exit
    reactor->requestExit();
    EXPECT_EQ(capture.count("[requestExit] bytes_sent(8)"), 1u);
    reactor->loop(0ms);
    EXPECT_EQ(capture.count("[loop] (1)"), 1u);
    EXPECT_EQ(capture.count("no available handlers, continue to wait..."), 0u);
    EXPECT_EQ(capture.count("[loop] The registered PollEvent count(1) timeout milliseconds(0)"),
              1u);
    EXPECT_EQ(capture.count("[handleExitEvent] exit event happened"), 1u);
    EXPECT_EQ(capture.count("[loop] reactor exits now"), 1u);
    reactor.reset();
    leaks.check();  // the exit descriptor is closed with the reactor
}

TEST_F(DefaultReactorTest, DroppedHandlerIsRemovedAsExpiredWithoutDispatch) {
    Event kept;
    Event dropped;
    auto keptHandler = drainingHandler(kept);
    auto droppedHandler = drainingHandler(dropped);
    ASSERT_TRUE(reactor->registerEventHandler(keptHandler));
    ASSERT_TRUE(reactor->registerEventHandler(droppedHandler));
    droppedHandler.reset();
    dropped.signal();  // ready, but nobody may be called for it

    startLoop(100ms);
    ASSERT_TRUE(capture.waitFor(line("handler(key: %d) expired, remove it", dropped.fd())));
    ASSERT_TRUE(capture.waitFor(
            line("[removeEventHandlerByFd] handler(key: %d) removed", dropped.fd())));
    kept.signal();
    ASSERT_TRUE(waitUntil([&] { return keptHandler->calls.load() == 1; }));
    stopLoop();
    EXPECT_EQ(capture.count(line("handler(key: %d) expired, remove it", dropped.fd())), 1u);
    EXPECT_EQ(capture.countContaining(line("dispatch to event handler(fd:%d)", dropped.fd())), 0u);
    EXPECT_FALSE(reactor->removeEventHandlerByFd(dropped.fd()));
    EXPECT_EQ(capture.count(line("handler(key: %d) does not registered before", dropped.fd())), 1u);
}

// A duplicate key is refused yet releases the start gate; an expired handler
// is refused and does not.
TEST_F(DefaultReactorTest, RefusedRegistrations) {
    auto gone = std::make_shared<CountingHandler>(5, EventType::READ);
    std::weak_ptr<EventHandler> expired = gone;
    gone.reset();
    EXPECT_FALSE(reactor->registerEventHandler(expired));
    EXPECT_FALSE(reactor->removeEventHandler(expired));
    EXPECT_EQ(capture.count("event handler is expired"), 2u);
    EXPECT_EQ(capture.countContaining("Release Semaphore of Reactor"), 0u);
    EXPECT_FALSE(reactor->removeEventHandlerByFd(5));
    EXPECT_EQ(capture.count("handler(key: 5) does not registered before"), 1u);

    Event event;
    auto first = drainingHandler(event);
    auto second = drainingHandler(event);
    ASSERT_TRUE(reactor->registerEventHandler(first));
    EXPECT_FALSE(reactor->registerEventHandler(second));
    const std::string warning = line("handler(key: %d) already existed", event.fd());
    ASSERT_EQ(capture.count(warning), 1u);
    EXPECT_EQ(levelsOf(capture, warning), std::set<uint32_t>{2});
    EXPECT_EQ(capture.count("[registerEventHandler] Release Semaphore of Reactor"), 2u);

    event.signal();
    startLoop();
    ASSERT_TRUE(waitUntil([&] { return first->calls.load() == 1; }));
    stopLoop();
    EXPECT_EQ(second->calls.load(), 0);
}

TEST_F(DefaultReactorTest, IdleCyclesWithATimeoutLogPollTimedOut) {
    Event idle;
    auto handler = drainingHandler(idle);
    ASSERT_TRUE(reactor->registerEventHandler(handler));
    startLoop(100ms);
    ASSERT_TRUE(capture.waitFor("poll timed out", 3));
    stopLoop();
    EXPECT_EQ(handler->calls.load(), 0);
    EXPECT_GE(capture.count("[loop] The registered PollEvent count(2) timeout milliseconds(100)"),
              3u);
    EXPECT_EQ(levelsOf(capture, "poll timed out"), std::set<uint32_t>{2});
}

TEST_F(DefaultReactorTest, WriteHandlerIsNotCalledWhenOnlyReadable) {
    const FilledPipe pipe;
    const FileDescriptor& readEnd = pipe.readEnd;  // only the exit descriptor ends the cycle
    auto writer = std::make_shared<CountingHandler>(readEnd.get(), EventType::WRITE);
    ASSERT_TRUE(reactor->registerEventHandler(writer));
    reactor->requestExit();
    reactor->loop(0ms);
    EXPECT_EQ(writer->calls.load(), 0);
    EXPECT_EQ(capture.count(
                      line("fd(%d): skip output event with zero revents fields", readEnd.get())),
              1u);

    // Dispatch itself checks the wanted bits against what was reported.
    reactor->handlePollEvent({{readEnd.get(), POLLIN}}, {writer});
    EXPECT_EQ(writer->calls.load(), 0);
    EXPECT_EQ(capture.count(
                      line("event handler (fd:%d) cannot handle poll events (1)", readEnd.get())),
              1u);
    reactor->handlePollEvent({{readEnd.get(), POLLIN | POLLOUT}}, {writer});
    EXPECT_EQ(writer->calls.load(), 1);
}

// Handlers ready in the cycle that sees the exit request all run, in
// ascending descriptor order, before the loop returns.
TEST_F(DefaultReactorTest, HandlersReadyWithTheExitEventRunInOrderBeforeTheLoopReturns) {
    std::vector<Event> events(4);
    std::vector<int> order;  // appended on the reactor's thread only
    std::vector<std::shared_ptr<CountingHandler>> handlers;
    for (auto it = events.rbegin(); it != events.rend(); ++it) {  // registered in descending order
        const Event* event = &*it;
        handlers.push_back(
                std::make_shared<CountingHandler>(event->fd(), EventType::READ, [&order, event] {
                    event->drain();
                    order.push_back(event->fd());
                }));
        ASSERT_TRUE(reactor->registerEventHandler(handlers.back()));
        event->signal();
    }
    reactor->requestExit();
    reactor->loop(0ms);
    ASSERT_EQ(order.size(), 4u);
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
    EXPECT_EQ(capture.count("[loop] (1)"), 1u);
    const auto lines = capture.lines();
    const auto exited = std::find_if(lines.begin(), lines.end(), [](const auto& logged) {
        return logged.text == "[loop] reactor exits now";
    });
    const auto lastDispatch = std::find_if(lines.begin(), lines.end(), [&](const auto& logged) {
        return logged.text ==
               line("[handlePollEvent] dispatch to event handler(fd:%d)", order.back());
    });
    ASSERT_NE(exited, lines.end());
    ASSERT_NE(lastDispatch, lines.end());
    EXPECT_LT(lastDispatch, exited);
}

// Handlers register and remove handlers from inside handleEvent() while other
// threads do the same; a deadlock trips the watchdog.
TEST_F(DefaultReactorTest, RegistrationAndRemovalFromAnyThreadAndFromInsideHandlers) {
    Event selfEvent;
    Event nextEvent;
    auto next = drainingHandler(nextEvent);
    std::shared_ptr<CountingHandler> self;
    self = std::make_shared<CountingHandler>(selfEvent.fd(), EventType::READ, [&] {
        selfEvent.drain();
        EXPECT_TRUE(reactor->registerEventHandler(next));
        EXPECT_TRUE(reactor->removeEventHandler(self));
        nextEvent.signal();
    });
    ASSERT_TRUE(reactor->registerEventHandler(self));
    startLoop();

    std::vector<Event> churnEvents(2);
    std::vector<std::thread> churners;
    for (const Event& event : churnEvents) {
        churners.emplace_back([this, &event = event] {
            auto handler = drainingHandler(event);
            for (int i = 0; i < 200; ++i) {
                EXPECT_TRUE(reactor->registerEventHandler(handler));
                if (i % 10 == 0) {
                    event.signal();
                }
                EXPECT_TRUE(reactor->removeEventHandlerByFd(event.fd()));
            }
        });
    }
    selfEvent.signal();
    ASSERT_TRUE(waitUntil([&] { return next->calls.load() >= 1; }));
    for (auto& churner : churners) {
        churner.join();
    }
    stopLoop();
    EXPECT_EQ(self->calls.load(), 1);
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
