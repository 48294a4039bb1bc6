// A careless caller: the library closes what it drops and never what it has
// handed out, stays stoppable, keeps alive what still runs and ends the
// process only saying why.
#include <fcntl.h>
#include <ipc/CBRegistry.h>
#include <ipc/CountingSemaphore.h>
#include <ipc/DefaultReactor.h>
#include <ipc/DequeHandler.h>
#include <ipc/MessageLoop.h>
#include <ipc/MessageTable.h>
#include <ipc/SocketEventHandler.h>
#include <ipc/utils/FunctionRunnable.h>
#include <ipc/utils/Thread.h>
#include <ipc/utils/ThreadPool.h>
#include <sys/eventfd.h>

#include <cstring>
#include <fstream>
#include <list>
#include <stdexcept>

#include "support/EventFdHandler.h"
#include "support/Messages.h"
#include "support/ReactorThread.h"
#include "support/SocketPairFixture.h"

namespace {

using namespace Kestrel::ipc;
using namespace velacam::test;
using Kestrel::ipc::utils::FunctionRunnable;
// With a leak check, a log capture and a watchdog; the raw peer is for the payload wait.
using CarelessCallerTest = RawPeerTest;

// A reply of `id` with status byte 0 that carries a fresh eventfd.
std::unique_ptr<Message> replyWithDescriptor(uint32_t id) {
    auto message = makeMessage(id, {0}, {eventfd(0, EFD_CLOEXEC)});
    message->setHeader(id, 0, Message::kFlagReply, 1, 1);
    return message;
}

TEST_F(CarelessCallerTest, DroppedRepliesLateEnqueuesAndContainersGoingAwayCloseTheirDescriptors) {
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
    MessageTable table(1);
    table.update(replyWithDescriptor(4));
    table.update(replyWithDescriptor(5));
}

TEST_F(CarelessCallerTest, ReusedOutParameters_LeaveTheDescriptorsTakenFromThemOpen) {
    MessageTable table(1);
    CBRegistry registry(1);
    table.update(replyWithDescriptor(1));
    registry.updateCBList(replyWithDescriptor(1));
    std::list<std::unique_ptr<Message>> list;
    std::unique_ptr<Message> pointer;
    ASSERT_TRUE(table.extract(list));
    ASSERT_TRUE(registry.extractCBList(pointer));
    // The consumer takes the descriptors: from now on they are its own.
    const FileDescriptor fromTable(list.front()->payload().fds.at(0), 0);
    const FileDescriptor fromList(pointer->payload().fds.at(0), 0);
    table.update(makeMessage(2));
    registry.updateCBList(makeMessage(2));
    ASSERT_TRUE(table.extract(list));
    ASSERT_TRUE(registry.extractCBList(pointer));
    EXPECT_TRUE(isOpen(fromTable.get()));
    EXPECT_TRUE(isOpen(fromList.get()));
}

TEST_F(CarelessCallerTest, MovedFromMessagesDroppedByAQueueLoopOrTable_DoNotEndTheProcess) {
    const auto movedFrom = [] {
        auto message = makeMessage(1, {1}, {eventfd(0, EFD_CLOEXEC)});
        Message taken = std::move(*message);
        const FileDescriptor descriptor(taken.payload().fds.at(0), 0);
        return message;
    };
    MessageQueue exited;
    exited.requestExit();
    exited.enqueueMessage(movedFrom(), 0ms);
    MessageQueue().enqueueMessage(movedFrom(), 0ms);
    // Having no handler, it is dropped; the next message ends the loop.
    MessageLoop loop;
    loop.messageQueue().enqueueMessage(movedFrom(), 0ms);
    auto exiting = std::make_shared<FunctionHandler>([&loop](auto) { loop.requestExit(); });
    loop.messageQueue().enqueueMessage(makeMessage(2, {}, {}, exiting), 0ms);
    loop.dispatchMessages();
    MessageTable table(1);
    table.update(makeMessage(3));
    std::list<std::unique_ptr<Message>> list;
    list.push_back(movedFrom());
    ASSERT_TRUE(table.extract(list));
    CBRegistry registry(1);
    registry.updateCBList(makeMessage(3));
    std::unique_ptr<Message> pointer = movedFrom();
    ASSERT_TRUE(registry.extractCBList(pointer));
}

TEST_F(CarelessCallerTest, DroppingAMessage_ClosesItsDescriptorsWithoutCopyingItsPayload) {
    constexpr long kPayloadKiB = 16 * 1024;
    auto message = makeMessage(1, std::vector<uint8_t>(kPayloadKiB * 1024, 'd'),
                               {eventfd(0, EFD_CLOEXEC)});
    const int descriptor = message->payload().fds.at(0);
    MessageQueue exited;
    exited.requestExit();
    std::ofstream("/proc/self/clear_refs") << "5";  // resets the peak resident size
    const long before = statusKiB("VmHWM");
    exited.enqueueMessage(std::move(message), 0ms);
    EXPECT_LT(statusKiB("VmHWM") - before, kPayloadKiB / 2);
    EXPECT_FALSE(isOpen(descriptor));
}

TEST_F(CarelessCallerTest, AcquireAllWithAnEmptyFunction_TakesTheUnitsWithoutThrowing) {
    CountingSemaphore semaphore(1);
    semaphore.release(2);
    EXPECT_NO_THROW(semaphore.acquireAllWith({}));
    auto blocked = startBlocked([&semaphore] { semaphore.acquire(); });  // none left over
    semaphore.release(1);
    blocked.get();
}

// Non-blocking: the wait for the payload is the library's own, up to its deadline.
TEST_F(CarelessCallerTest, HugePayloadTimeout_StillWaitsForALatePayload) {
    ASSERT_EQ(fcntl(near, F_SETFL, O_NONBLOCK), 0);
    receiver.setPayloadTimeout(std::chrono::milliseconds::max());
    ASSERT_TRUE(writeHeaderRecord(peer.get(), 7, 3, 0));
    std::thread late([this, self = gettid()] {
        waitUntilAsleep(self);
        EXPECT_EQ(writeRecord(peer.get(), "abc", 3, {}), 3);
    });
    Message received;
    EXPECT_EQ(receiver.recv(&received), 0);
    late.join();
    EXPECT_EQ(received.payload().data, (std::vector<uint8_t>{'a', 'b', 'c'}));
}

TEST_F(CarelessCallerTest, LoopWithFailingWaitsStillReturnsAfterRequestExit) {
    DefaultReactor reactor;
    ASSERT_TRUE(reactor.registerEventHandler(std::make_shared<EventFdHandler>()));
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
        mHandler.setRunnable(std::shared_ptr<utils::Runnable>());
        EXPECT_FALSE(mDestroyed) << "destroyed while it ran";
        ++mRuns;  // touches itself: a heap-use-after-free under ASan otherwise
    }

  private:
    Handler& mHandler;
    std::atomic<bool>& mDestroyed;
    int mRuns = 0;
};

TEST_F(CarelessCallerTest, RunnableReplacingItselfLivesUntilItReturns) {
    std::atomic<bool> destroyed{false};
    DequeHandler deque(1);
    deque.setRunnable(std::make_shared<SelfReplacingRunnable<DequeHandler>>(deque, destroyed));
    deque.handleDeque();
    EXPECT_TRUE(destroyed);
    destroyed = false;
    SocketEventHandler socket(FileDescriptor(eventfd(0, EFD_CLOEXEC), 0), EventType::READ);
    socket.setRunnable(
            std::make_shared<SelfReplacingRunnable<SocketEventHandler>>(socket, destroyed));
    socket.handleEvent();
    EXPECT_TRUE(destroyed);
}

// Counts the reply waiter's checks without keeping the lines.
class ResponseCheckCounter : public LogCapture {
  public:
    void record(uint32_t, const char*, uint32_t, const char* text, int) override {
        checks += std::strstr(text, "waitResponse timed out") != nullptr;
    }
    std::atomic<int> checks{0};
};

TEST_F(CarelessCallerTest, ReplySignalledRightAfterTheWaitersCheckIsNotLost) {
    ResponseCheckCounter counter;
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
        // A lost wake-up waits out the full second; a kept one, on a loaded
        // machine, up to half of that.
        ASSERT_LT(waited, std::chrono::milliseconds(900)) << "wake-up lost in round " << round;
    }
}

using CarelessCallerDeathTest = ::testing::Test;

TEST_F(CarelessCallerDeathTest, ThrowingTaskOrRunnableEndsTheProcessNamingTheException) {
    EXPECT_DEATH(utils::ThreadPool(1).addTask([] { throw std::runtime_error("careless task"); }),
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
