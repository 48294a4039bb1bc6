// MessageQueue and MessageLoop: order, blocking, exit and ownership of queued
// messages (many producers feeding one loop are in the stress suite).
#include <gtest/gtest.h>
#include <ipc/Message.h>
#include <ipc/MessageHandler.h>
#include <ipc/MessageLoop.h>
#include <ipc/MessageQueue.h>
#include <ipc/utils/Log.h>

#include <future>
#include <memory>
#include <thread>
#include <vector>

#include "support/LogChecks.h"
#include "support/Waiting.h"

namespace {

using namespace Kestrel::ipc;
using namespace velacam::test;

// Every live message carrying a handler holds a reference to it, so the
// handler's use count (less the test's own) counts those messages.
std::unique_ptr<Message> makeMessage(uint32_t id, std::shared_ptr<MessageHandler> handler) {
    auto message = std::make_unique<Message>(std::move(handler));
    message->setHeader(id, 0, 0, 0, 0);
    return message;
}

// Records the ids it is handed; asks `loop` to exit when handed `exitAt`.
class RecordingHandler : public MessageHandler {
  public:
    RecordingHandler(MessageLoop& loop, uint32_t exitAt) : mLoop(loop), mExitAt(exitAt) {}
    using MessageHandler::handleMessage;
    void handleMessage(std::unique_ptr<Message> message) override {
        ids.push_back(message->id());
        if (message->id() == mExitAt) {
            mLoop.requestExit();
        }
    }
    std::vector<uint32_t> ids;

  private:
    MessageLoop& mLoop;
    const uint32_t mExitAt;
};

class MessageQueueTest : public DebugLogTest {
  protected:
    // Waits until the consumer has logged that it blocks for the `n`th time.
    bool waitForConsumerBlocked(size_t n = 1) {
        return capture.waitFor("[nextMessage] Block to wait for signal", n);
    }

    Watchdog watchdog{"MessageQueue test", 30s};
};

TEST_F(MessageQueueTest, LoopDispatchesInArrivalOrderUntilExitAndDestroysWhatIsLeft) {
    auto loop = std::make_unique<MessageLoop>();
    auto handler = std::make_shared<RecordingHandler>(*loop, 12);
    loop->messageQueue().enqueueMessage(makeMessage(1, nullptr), 0ms);  // handled by nobody
    for (uint32_t id : {11u, 12u, 13u}) {
        loop->messageQueue().enqueueMessage(makeMessage(id, handler), 0ms);
    }
    loop->dispatchMessages();  // returns once message 12 has asked for the exit
    EXPECT_EQ(handler->ids, (std::vector<uint32_t>{11, 12}));
    EXPECT_EQ(handler.use_count(), 2);  // message 13, still queued
    expectEachOnce(capture, {"[dispatchMessages] (1 message dispatched) -",
                             "[dispatchMessages] (3 message dispatched) -",
                             "message queue leaves us, exit now..."});

    loop->messageQueue().enqueueMessage(makeMessage(14, handler), 0ms);
    EXPECT_EQ(handler.use_count(), 2);  // dropped at once
    EXPECT_EQ(capture.count("message queue is exiting, skip enqueueMessage()"), 1u);
    loop.reset();
    EXPECT_EQ(handler.use_count(), 1);  // message 13 went with the loop, undispatched
}

TEST_F(MessageQueueTest, EnqueueNeverWaitsAndNextMessageBlocksPastItsTimeoutUntilAMessageOrExit) {
    auto handler = std::make_shared<MessageHandler>();
    MessageQueue queue;
    for (uint32_t id = 0; id < 1000; ++id) {
        queue.enqueueMessage(makeMessage(id, handler), 5000ms);  // unbounded: never waits
    }
    EXPECT_EQ(capture.count("[enqueueMessage] Release Semaphore of MessageQueue"), 1000u);
    expectEachOnce(capture, {"[enqueueMessage] an available message arrived: 1 in total",
                             "[enqueueMessage] an available message arrived: 1000 in total"});
    for (uint32_t id = 0; id < 1000; ++id) {
        const auto message = queue.nextMessage(0ms).message;
        ASSERT_TRUE(message);
        ASSERT_EQ(message->id(), id);
    }
    EXPECT_EQ(handler.use_count(), 1);
    capture.clear();  // each call above logged that it blocks

    auto next = std::async(std::launch::async, [&] { return queue.nextMessage(100ms); });
    ASSERT_TRUE(waitForConsumerBlocked());
    EXPECT_EQ(next.wait_for(300ms), std::future_status::timeout);
    queue.enqueueMessage(makeMessage(4, nullptr), 0ms);
    ASSERT_EQ(next.wait_for(10s), std::future_status::ready);
    MessageQueue::NextMessage result = next.get();
    EXPECT_FALSE(result.timedOut);
    ASSERT_TRUE(result.message);
    EXPECT_EQ(result.message->id(), 4u);
    EXPECT_EQ(capture.count("[nextMessage] retrieve one message: 0 remained"), 1u);

    // With a timeout of 1 ms or more, an exit seen after waking says "skip".
    next = std::async(std::launch::async, [&] { return queue.nextMessage(1ms); });
    ASSERT_TRUE(waitForConsumerBlocked(2));
    queue.requestExit();
    ASSERT_EQ(next.wait_for(10s), std::future_status::ready);
    EXPECT_FALSE(next.get().message);
    EXPECT_EQ(capture.count("message queue is exiting, skip nextMessage()"), 1u);
    EXPECT_EQ(capture.count("message queue is exiting, cannot get the next message now"), 0u);
    result = queue.nextMessage(0ms);  // once exiting, returns at once
    EXPECT_FALSE(result.timedOut || result.message);
    EXPECT_EQ(capture.count("message queue is exiting, skip nextMessage()"), 2u);
}

TEST_F(MessageQueueTest, RequestExitEndsABlockedLoopWithItsLines) {
    MessageLoop loop;
    std::thread consumer([&] { loop.dispatchMessages(); });
    ASSERT_TRUE(waitForConsumerBlocked());
    loop.requestExit();
    consumer.join();
    expectEachOnce(capture, {"message queue is exiting, cannot get the next message now",
                             "message queue leaves us, exit now..."});
    for (const auto& line : capture.lines()) {
        if (line.text.rfind("message queue", 0) == 0) {
            EXPECT_EQ(line.level, 2u) << line.text;
            EXPECT_EQ(line.moduleId, Kestrel::ipc::utils::kLogModuleCore);
        }
    }
}

}  // namespace
