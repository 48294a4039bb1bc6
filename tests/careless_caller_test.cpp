// A careless caller: the library closes what it drops, stays stoppable, keeps
// alive what still runs and ends the process saying why.
#include <gtest/gtest.h>
#include <ipc/CBRegistry.h>
#include <ipc/DefaultReactor.h>
#include <ipc/DequeHandler.h>
#include <ipc/Message.h>
#include <ipc/MessageQueue.h>
#include <ipc/MessageTable.h>
#include <ipc/SocketEventHandler.h>
#include <ipc/utils/FunctionRunnable.h>
#include <ipc/utils/Thread.h>
#include <ipc/utils/ThreadPool.h>
#include <sys/eventfd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <list>
#include <memory>
#include <stdexcept>
#include <thread>

#include "support/Descriptors.h"
#include "support/EventFdHandler.h"
#include "support/LogCapture.h"
#include "support/Messages.h"
#include "support/ReactorThread.h"
#include "support/Waiting.h"

namespace {

using namespace Kestrel::ipc;
using namespace velacam::test;
using Kestrel::ipc::utils::FunctionRunnable;

// A reply of `id` with status byte 0 that carries a fresh eventfd.
std::unique_ptr<Message> replyWithDescriptor(uint32_t id) {
    auto message = makeMessage(id, {0}, {eventfd(0, EFD_CLOEXEC)});
    message->setHeader(id, 0, Message::kFlagReply, 1, 1);
    return message;
}

TEST(CarelessCallerTest, DroppedRepliesLateEnqueuesAndContainersGoingAwayCloseTheirDescriptors) {
    const ScopedLeakCheck leaks;
    CBRegistry registry(1);
    registry.unRegisterCB(replyWithDescriptor(7));  // nobody registered 7
    int status = -1;
    registry.registerCB(*makeMessage(8), [&status](uint8_t s) { status = s; });
    registry.unRegisterCB(replyWithDescriptor(8));  // the callback sees the status only
    EXPECT_EQ(status, 0);
    MessageQueue exited;
    exited.requestExit();
    exited.enqueueMessage(replyWithDescriptor(9), 0ms);

    MessageQueue queue;
    queue.enqueueMessage(replyWithDescriptor(1), 0ms);
    registry.updateCBList(replyWithDescriptor(2));
    std::unique_ptr<Message> held = replyWithDescriptor(3);
    ASSERT_TRUE(registry.extractCBList(held));  // replaces message 3
    registry.updateCBList(std::move(held));     // and back, to stay there
    MessageTable table(1);
    table.update(replyWithDescriptor(4));
    table.update(replyWithDescriptor(5));
    std::list<std::unique_ptr<Message>> out;
    out.push_back(replyWithDescriptor(6));
    ASSERT_TRUE(table.extract(out));  // replaces message 6
    table.update(std::move(out.front()));
}

TEST(CarelessCallerTest, LoopWithFailingWaitsStillReturnsAfterRequestExit) {
    LogCapture capture;
    DefaultReactor reactor;
    auto handler = std::make_shared<EventFdHandler>();
    ASSERT_TRUE(reactor.registerEventHandler(handler));
    Watchdog watchdog("loop with a negative time-out", 10s);
    ReactorThread loop(reactor, std::chrono::milliseconds(-1));
    ASSERT_TRUE(capture.waitFor("poll failed(Invalid argument) errno(22)"));
    loop.stop();  // hangs, and the watchdog fires, if the loop keeps turning
}

template <typename Handler>
class SelfReplacingRunnable : public utils::Runnable {
  public:
    SelfReplacingRunnable(Handler& handler, std::atomic<bool>& destroyed)
        : mHandler(handler), mDestroyed(destroyed) {}
    ~SelfReplacingRunnable() override { mDestroyed = true; }
    void run() override {
        std::shared_ptr<utils::Runnable> none;
        mHandler.setRunnable(std::move(none));
        EXPECT_FALSE(mDestroyed) << "destroyed while it ran";
        ++mRuns;  // touches itself: a heap-use-after-free under ASan otherwise
    }

  private:
    Handler& mHandler;
    std::atomic<bool>& mDestroyed;
    int mRuns = 0;
};

TEST(CarelessCallerTest, RunnableReplacingItselfLivesUntilItReturns) {
    std::atomic<bool> destroyed{false};
    DequeHandler deque(1);
    deque.setRunnable(std::make_shared<SelfReplacingRunnable<DequeHandler>>(deque, destroyed));
    deque.handleDeque();
    EXPECT_TRUE(destroyed);

    destroyed = false;
    SocketEventHandler socket(Kestrel::utils::sys::FileDescriptor(eventfd(0, EFD_CLOEXEC), 0),
                              EventType::READ);
    socket.setRunnable(
            std::make_shared<SelfReplacingRunnable<SocketEventHandler>>(socket, destroyed));
    socket.handleEvent();
    EXPECT_TRUE(destroyed);
}

// Counts the reply waiter's checks without keeping the lines.
class ResponseCheckCounter : public LogCapture {
  public:
    void record(uint32_t, const char*, uint32_t, const char* text, int) override {
        if (std::strstr(text, "waitResponse timed out") != nullptr) {
            ++checks;
        }
    }
    std::atomic<int> checks{0};
};

TEST(CarelessCallerTest, ReplySignalledRightAfterTheWaitersCheckIsNotLost) {
    ResponseCheckCounter counter;
    Watchdog watchdog("reply rounds", 60s);
    for (int round = 0; round < 3000; ++round) {
        Message message;
        message.setHeader(static_cast<uint32_t>(round), 0, 0, 0, 0);
        const int before = counter.checks;
        std::chrono::steady_clock::duration waited{};
        std::thread waiter([&] {
            const auto start = std::chrono::steady_clock::now();
            message.waitResponse();
            waited = std::chrono::steady_clock::now() - start;
        });
        // Just after the waiter's first check: a lost wake-up costs its second.
        while (counter.checks == before) {
            std::this_thread::yield();
        }
        message.setHeader(static_cast<uint32_t>(round), 0, Message::kFlagReply, 0, 0);
        message.signalResponse();
        waiter.join();
        ASSERT_LT(waited, std::chrono::milliseconds(500)) << "wake-up lost in round " << round;
    }
}

using CarelessCallerDeathTest = ::testing::Test;

TEST_F(CarelessCallerDeathTest, ThrowingTaskOrRunnableEndsTheProcessNamingTheException) {
    EXPECT_DEATH(
            {
                utils::ThreadPool pool(1);
                pool.addTask([] { throw std::runtime_error("careless task"); });
            },
            "thread pool task threw an exception: careless task");
    EXPECT_DEATH(
            {
                utils::Thread thread(
                        new FunctionRunnable([] { throw std::runtime_error("careless runnable"); }),
                        true);
                thread.start();
                thread.wait();
            },
            "runnable threw an exception: careless runnable");
}

}  // namespace
