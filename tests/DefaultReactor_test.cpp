#include <fcntl.h>
#include <gtest/gtest.h>
#include <ipc/DefaultReactor.h>
#include <ipc/EventHandler.h>
#include <poll.h>
#include <sys/resource.h>
#include <sysutils/FileDescriptor.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/Descriptors.h"
#include "support/EventFdHandler.h"
#include "support/LogCapture.h"
#include "support/ReactorThread.h"
#include "support/Waiting.h"

namespace {

using namespace Kestrel::ipc;
using namespace velacam::test;
using Kestrel::utils::sys::FileDescriptor;

// Watches a descriptor it does not own and never reads it; counts its calls.
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

std::string keyLine(const char* text, int fd) {
    return "handler(key: " + std::to_string(fd) + ") " + text;
}

class DefaultReactorTest : public ::testing::Test {
  protected:
    ScopedLeakCheck leaks;  // when the reactor and its exit descriptor are gone
    LogCapture capture;
    Watchdog watchdog{"DefaultReactor case", 60s};
    std::optional<DefaultReactor> reactor{std::in_place};
    std::optional<ReactorThread> loop;
};

// Ready handlers in ascending order; none that wants writing a readable descriptor.
TEST_F(DefaultReactorTest, ExitRequestedBeforeLoopEndsItAfterOneCycleOfDispatch) {
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

    reactor->handlePollEvent({{readEnd.get(), POLLIN}}, {writer});
    EXPECT_EQ(writer->calls.load(), 0);
    EXPECT_EQ(capture.levelOf("event handler (fd:" + std::to_string(readEnd.get()) +
                              ") cannot handle poll events (1)"),
              1u);
    reactor.reset();
}

TEST_F(DefaultReactorTest, DroppedHandlerIsRemovedAsExpiredAndIdleCyclesTimeOut) {
    auto kept = std::make_shared<EventFdHandler>();
    const EventFdHandler droppedSource;  // the descriptor outlives its handler
    const int droppedFd = droppedSource.fd();
    auto dropped = std::make_shared<CountingHandler>(droppedFd, EventType::READ);
    ASSERT_TRUE(reactor->registerEventHandler(kept));
    ASSERT_TRUE(reactor->registerEventHandler(dropped));
    dropped.reset();
    droppedSource.ring();  // ready, but nobody may be called for it
    loop.emplace(*reactor, 100ms);
    ASSERT_TRUE(capture.waitFor("poll timed out", 2));
    EXPECT_EQ(capture.levelOf("poll timed out"), 2u);
    kept->ring();
    ASSERT_TRUE(waitUntil([&] { return kept->calls.load() == 1; }));
    loop.reset();
    EXPECT_EQ(capture.count(keyLine("expired, remove it", droppedFd)), 1u);
    EXPECT_FALSE(reactor->removeEventHandlerByFd(droppedFd));
    EXPECT_EQ(capture.levelOf(keyLine("does not registered before", droppedFd)), 2u);
}

// No poll times out before the first registration, which no expired handler makes.
TEST_F(DefaultReactorTest, LoopWaitsForTheFirstRegistrationAndRefusals) {
    auto looping = startBlocked([&] { reactor->loop(1ms); });
    auto gone = std::make_shared<CountingHandler>(5, EventType::READ);
    std::weak_ptr<EventHandler> expired = gone;
    gone.reset();
    EXPECT_FALSE(reactor->registerEventHandler(expired));
    EXPECT_FALSE(reactor->removeEventHandler(expired));
    EXPECT_EQ(capture.count("event handler is expired"), 2u);
    EXPECT_TRUE(holdsThroughGrace([&] { return capture.countContaining("poll") == 0; }));

    auto first = std::make_shared<EventFdHandler>();
    auto second = std::make_shared<CountingHandler>(first->fd(), EventType::READ);
    first->ring();
    ASSERT_TRUE(reactor->registerEventHandler(first));
    EXPECT_FALSE(reactor->registerEventHandler(second));
    EXPECT_EQ(capture.levelOf(keyLine("already existed", first->fd())), 2u);
    ASSERT_TRUE(waitUntil([&] { return first->calls.load() == 1; }));
    reactor->requestExit();
    looping.get();
    EXPECT_EQ(second->calls.load(), 0);
}

// A deadlock trips the watchdog.
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
    loop.emplace(*reactor);
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
    loop.reset();
    EXPECT_EQ(self->calls.load(), 1);
}

// Each timing with and without a handler that keeps the loop cycling.
TEST_F(DefaultReactorTest, ExitRequestedBeforeTogetherWithOrJustAfterTheStart_EndsTheLoop) {
    enum Timing { kBefore, kTogether, kAfterStart };
    for (int round = 0; round < 6; ++round) {
        const Timing timing = static_cast<Timing>(round % 3);
        const bool withHandler = round % 2 == 0;
        DefaultReactor reactor;
        const EventFdHandler source;  // rung and never drained: ready on every cycle
        source.ring();
        auto handler = std::make_shared<CountingHandler>(source.fd(), EventType::READ);
        if (withHandler) {
            ASSERT_TRUE(reactor.registerEventHandler(handler));
        }
        if (timing == kBefore) {
            reactor.requestExit();
        }
        std::promise<pid_t> loopTid;
        std::thread loopThread([&] {
            loopTid.set_value(gettid());
            reactor.loop(0ms);
        });
        const pid_t tid = loopTid.get_future().get();
        if (timing == kAfterStart) {  // at the gate, or cycling
            ASSERT_TRUE(withHandler ? waitUntil([&] { return handler->calls.load() > 0; })
                                    : waitUntilAsleep(tid));
        }
        reactor.requestExit();
        loopThread.join();
    }
}

TEST(DefaultReactorDeathTest, InconsistentDispatchOrUnreadableExitEventAborts) {
    DefaultReactor reactor;
    auto seven = std::make_shared<CountingHandler>(7, EventType::READ);
    auto five = std::make_shared<CountingHandler>(5, EventType::READ);
    EXPECT_DEATH(reactor.handlePollEvent({}, {seven, five}),
                 "ascendingActiveHandlers is not in ascending order: \\{ 7 5 \\}");
    EXPECT_DEATH(reactor.handlePollEvent({{9, POLLIN}}, {five}),
                 "cannot find event handler \\(fd:9\\)");
    EXPECT_DEATH(reactor.handleExitEvent({-1, POLLIN}),
                 "handle exit event failed \\(Resource temporarily unavailable\\)");
}

// A reactor made first: the undefined-behaviour checker needs a descriptor.
TEST(DefaultReactorDeathTest, ExitDescriptorThatCannotBeMadeAborts) {
    EXPECT_DEATH(
            {
                { DefaultReactor first; }
                const rlimit none{};
                setrlimit(RLIMIT_NOFILE, &none);
                DefaultReactor reactor;
            },
            "create event notification failed \\(Too many open files\\)");
}

}  // namespace
