#include <gtest/gtest.h>
#include <ipc/Message.h>
#include <ipc/MessageLoop.h>
#include <ipc/MessageQueue.h>

#include <atomic>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include "support/LogCapture.h"
#include "support/Messages.h"
#include "support/Waiting.h"

namespace {

using namespace Kestrel::ipc;
using namespace velacam::test;

// Appends the ids it is handed to `ids`; asks `loop` to exit when handed `exitAt`.
std::shared_ptr<FunctionHandler> recorder(MessageLoop& loop, uint32_t exitAt,
                                          std::vector<uint32_t>& ids) {
    return std::make_shared<FunctionHandler>([&loop, exitAt, &ids](std::unique_ptr<Message> m) {
        ids.push_back(m->id());
        if (m->id() == exitAt) {
            loop.requestExit();
        }
    });
}

class MessageQueueTest : public ::testing::Test {
  protected:
    LogCapture capture;
    Watchdog watchdog{"MessageQueue case", 30s};
    std::vector<uint32_t> ids;  // the handler's
};

// Each queued message holds a reference to its handler; message 13 is left queued at exit.
TEST_F(MessageQueueTest, LoopDispatchesInArrivalOrderUntilExitAndDestroysWhatIsLeft) {
    auto loop = std::make_unique<MessageLoop>();
    auto handler = recorder(*loop, 12, ids);
    loop->messageQueue().enqueueMessage(makeMessage(1), 0ms);  // the default handler's
    for (uint32_t id : {11u, 12u}) {
        loop->messageQueue().enqueueMessage(makeMessage(id, {}, {}, handler), 0ms);
    }
    loop->messageQueue().enqueueMessage(makeMessage(13, {}, {}, handler), 0ms);
    loop->dispatchMessages();  // returns once message 12 has asked for the exit
    EXPECT_EQ(ids, (std::vector<uint32_t>{11, 12}));
    EXPECT_EQ(handler.use_count(), 2);  // message 13, still queued
    EXPECT_EQ(capture.levelOf("message queue leaves us, exit now..."), 2u);
    loop->messageQueue().enqueueMessage(makeMessage(14, {}, {}, handler), 0ms);
    EXPECT_EQ(handler.use_count(), 2);  // dropped at once
    EXPECT_EQ(capture.count("message queue is exiting, skip enqueueMessage()"), 1u);
    loop.reset();
    EXPECT_EQ(handler.use_count(), 1);  // message 13 went with the loop, undispatched
}

// The handler, owned only by its message, drops the message in its call.
TEST_F(MessageQueueTest, AHandlerOwnedByItsMessageLivesThroughItsCallAndGoesBeforeTheLoopWaits) {
    std::atomic<bool> gone{false};
    std::atomic<bool> goneInCall{false};
    MessageLoop loop;
    std::thread consumer([&loop] { loop.dispatchMessages(); });
    std::shared_ptr<void> lifetime(nullptr, [&gone](void*) { gone = true; });
    auto handler = std::make_shared<FunctionHandler>(
            [&, lifetime = std::move(lifetime)](std::unique_ptr<Message> message) {
                message.reset();
                goneInCall = gone.load();
            });
    loop.messageQueue().enqueueMessage(makeMessage(1, {}, {}, std::move(handler)), 0ms);
    EXPECT_TRUE(waitUntil([&] { return gone.load(); }));  // while the loop waits for more
    EXPECT_FALSE(goneInCall.load());
    loop.requestExit();
    consumer.join();
}

// A consumer's time-out only selects the line logged when its wait ends in exit.
TEST_F(MessageQueueTest, EnqueueNeverWaitsAndNextMessageBlocksPastItsTimeoutUntilAMessageOrExit) {
    MessageQueue queue;
    for (uint32_t id = 0; id < 1000; ++id) {
        queue.enqueueMessage(makeMessage(id), 5000ms);  // unbounded: never waits
    }
    for (uint32_t id = 0; id < 1000; ++id) {
        const auto message = queue.nextMessage(0ms).message;
        ASSERT_EQ(message ? message->id() : ~0u, id);
    }
    auto next = startBlocked([&] { return queue.nextMessage(1ms); });
    EXPECT_TRUE(holdsThroughGrace([&] { return next.wait_for(0ms) != std::future_status::ready; }));
    queue.enqueueMessage(makeMessage(4), 0ms);
    MessageQueue::NextMessage result = next.get();
    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(result.message ? result.message->id() : 0u, 4u);

    next = startBlocked([&] { return queue.nextMessage(1ms); });
    queue.requestExit();
    EXPECT_FALSE(next.get().message);
    EXPECT_EQ(capture.count("message queue is exiting, skip nextMessage()"), 1u);
    result = queue.nextMessage(0ms);  // once exiting, returns at once
    EXPECT_FALSE(result.timedOut || result.message);
    EXPECT_EQ(capture.count("message queue is exiting, skip nextMessage()"), 2u);
}

// Producer p's n-th message has id n * kProducers + p.
TEST_F(MessageQueueTest, ProducersIntoOneLoopLoseNothingAndKeepEachOnesOrder) {
    constexpr uint32_t kProducers = 8;
    constexpr uint32_t kEnd = kProducers * 5000;
    MessageLoop loop;
    auto handler = recorder(loop, kEnd, ids);
    std::thread consumer([&] { loop.dispatchMessages(); });
    std::vector<std::thread> producers;
    for (uint32_t p = 0; p < kProducers; ++p) {
        producers.emplace_back([&, p] {
            for (uint32_t id = p; id < kEnd; id += kProducers) {
                loop.messageQueue().enqueueMessage(makeMessage(id, {}, {}, handler), 0ms);
            }
        });
    }
    for (std::thread& producer : producers) {
        producer.join();
    }
    loop.messageQueue().enqueueMessage(makeMessage(kEnd, {}, {}, handler), 0ms);
    consumer.join();
    ASSERT_EQ(ids.size(), kEnd + 1);
    std::vector<uint32_t> next(kProducers, 0);  // each producer's next sequence number
    for (uint32_t i = 0; i < kEnd; ++i) {
        ASSERT_EQ(ids[i] / kProducers, next[ids[i] % kProducers]++) << "message " << i;
    }
}

}  // namespace
