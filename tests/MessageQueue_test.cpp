// MessageQueue and MessageLoop: order, blocking, exit, ownership of queued
// messages, and several producers feeding one consumer.
#include <gtest/gtest.h>
#include <ipc/Message.h>
#include <ipc/MessageHandler.h>
#include <ipc/MessageLoop.h>
#include <ipc/MessageQueue.h>
#include <ipc/utils/Log.h>

#include <atomic>
#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "support/LogCapture.h"
#include "support/Waiting.h"

namespace {

using Kestrel::ipc::Message;
using Kestrel::ipc::MessageHandler;
using Kestrel::ipc::MessageLoop;
using Kestrel::ipc::MessageQueue;
using Kestrel::ipc::utils::LogSetting;
using velacam::test::LogCapture;
using velacam::test::waitUntil;
using velacam::test::Watchdog;
using namespace std::chrono_literals;

// Counts its own destructions, so that a test sees every message go away.
class CountedMessage : public Message {
  public:
    CountedMessage(std::shared_ptr<MessageHandler> handler, std::atomic<int>& destroyed)
        : Message(std::move(handler)), mDestroyed(destroyed) {}
    ~CountedMessage() override { ++mDestroyed; }

  private:
    std::atomic<int>& mDestroyed;
};

// Records the ids it is handed, on the dispatching thread. `gate`, when set,
// holds the first call until it is opened.
class RecordingHandler : public MessageHandler {
  public:
    using MessageHandler::handleMessage;
    void handleMessage(std::unique_ptr<Message> message) override {
        {
            std::unique_lock<std::mutex> lock(mLock);
            mIds.push_back(message->id());
            mChanged.notify_all();
            mChanged.wait(lock, [this] { return !mHoldFirst || mIds.size() > 1 || mOpen; });
        }
    }

    void holdFirstCall() { mHoldFirst = true; }
    void open() {
        std::lock_guard<std::mutex> lock(mLock);
        mOpen = true;
        mChanged.notify_all();
    }
    bool waitForCalls(size_t n) {
        std::unique_lock<std::mutex> lock(mLock);
        return mChanged.wait_for(lock, 10s, [&] { return mIds.size() >= n; });
    }
    std::vector<uint32_t> ids() {
        std::lock_guard<std::mutex> lock(mLock);
        return mIds;
    }

  private:
    std::mutex mLock;
    std::condition_variable mChanged;
    std::vector<uint32_t> mIds;  // guarded by mLock
    bool mHoldFirst = false;     // set before the loop starts
    bool mOpen = false;          // guarded by mLock
};

std::unique_ptr<Message> makeMessage(uint32_t id, std::shared_ptr<MessageHandler> handler) {
    auto message = std::make_unique<Message>(std::move(handler));
    message->setHeader(id, 0, 0, 0, 0);
    return message;
}

std::unique_ptr<Message> makeCounted(uint32_t id, std::shared_ptr<MessageHandler> handler,
                                     std::atomic<int>& destroyed) {
    auto message = std::make_unique<CountedMessage>(std::move(handler), destroyed);
    message->setHeader(id, 0, 0, 0, 0);
    return message;
}

class MessageQueueTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (LogSetting::logLevel() < 1) {
            GTEST_SKIP() << "needs the debug property";
        }
    }
    // Waits until the consumer has logged that it blocks on the semaphore
    // for the `n`th time.
    bool waitForConsumerBlocked(size_t n = 1) {
        return capture.waitFor("[nextMessage] Block to wait for signal", n);
    }

    LogCapture capture;
    Watchdog watchdog{"MessageQueue test", 30s};
};

TEST_F(MessageQueueTest, LoopDispatchesInArrivalOrder) {
    auto handler = std::make_shared<RecordingHandler>();
    MessageLoop loop;
    std::thread consumer([&] { loop.dispatchMessages(); });
    for (uint32_t id : {11u, 12u, 13u}) {
        loop.messageQueue().enqueueMessage(makeMessage(id, handler), 0ms);
    }
    ASSERT_TRUE(handler->waitForCalls(3));
    loop.requestExit();
    consumer.join();
    EXPECT_EQ(handler->ids(), (std::vector<uint32_t>{11, 12, 13}));
    EXPECT_EQ(capture.count("[dispatchMessages] (3 message dispatched) -"), 1u);
}

TEST_F(MessageQueueTest, EnqueueLogsTheQueuedCount) {
    MessageQueue queue;
    queue.enqueueMessage(std::make_unique<Message>(), 0ms);
    queue.enqueueMessage(std::make_unique<Message>(), 0ms);
    EXPECT_EQ(capture.count("[enqueueMessage] Release Semaphore of MessageQueue"), 2u);
    EXPECT_EQ(capture.count("[enqueueMessage] an available message arrived: 1 in total"), 1u);
    EXPECT_EQ(capture.count("[enqueueMessage] an available message arrived: 2 in total"), 1u);
    EXPECT_TRUE(queue.nextMessage(0ms).message);
    EXPECT_EQ(capture.count("[nextMessage] retrieve one message: 1 remained"), 1u);
}

TEST_F(MessageQueueTest, NextMessageBlocksPastItsTimeoutUntilAnEnqueue) {
    MessageQueue queue;
    auto next = std::async(std::launch::async, [&] { return queue.nextMessage(100ms); });
    ASSERT_TRUE(waitForConsumerBlocked());
    EXPECT_EQ(next.wait_for(300ms), std::future_status::timeout);
    queue.enqueueMessage(makeMessage(4, nullptr), 0ms);
    ASSERT_EQ(next.wait_for(10s), std::future_status::ready);
    const MessageQueue::NextMessage result = next.get();
    EXPECT_FALSE(result.timedOut);
    ASSERT_TRUE(result.message);
    EXPECT_EQ(result.message->id(), 4u);
}

TEST_F(MessageQueueTest, RequestExitEndsABlockedLoopWithItsLines) {
    MessageLoop loop;
    std::thread consumer([&] { loop.dispatchMessages(); });
    ASSERT_TRUE(waitForConsumerBlocked());
    loop.requestExit();
    consumer.join();
    EXPECT_EQ(capture.count("message queue is exiting, cannot get the next message now"), 1u);
    EXPECT_EQ(capture.count("message queue leaves us, exit now..."), 1u);
    for (const auto& line : capture.lines()) {
        if (line.text.rfind("message queue", 0) == 0) {
            EXPECT_EQ(line.level, 2u) << line.text;
            EXPECT_EQ(line.moduleId, Kestrel::ipc::utils::kLogModuleCore);
        }
    }
}

TEST_F(MessageQueueTest, ExitSeenAfterWakingWithATimeoutSkipsNextMessage) {
    MessageQueue queue;
    auto next = std::async(std::launch::async, [&] { return queue.nextMessage(1ms); });
    ASSERT_TRUE(waitForConsumerBlocked());
    queue.requestExit();
    ASSERT_EQ(next.wait_for(10s), std::future_status::ready);
    EXPECT_FALSE(next.get().message);
    EXPECT_EQ(capture.count("message queue is exiting, skip nextMessage()"), 1u);
    EXPECT_EQ(capture.count("message queue is exiting, cannot get the next message now"), 0u);

    // Once exiting, a later call returns at once.
    const MessageQueue::NextMessage again = queue.nextMessage(0ms);
    EXPECT_FALSE(again.timedOut);
    EXPECT_FALSE(again.message);
    EXPECT_EQ(capture.count("message queue is exiting, skip nextMessage()"), 2u);
}

TEST_F(MessageQueueTest, EnqueueAfterExitDestroysTheMessageUndispatched) {
    auto handler = std::make_shared<RecordingHandler>();
    std::atomic<int> destroyed{0};
    MessageLoop loop;
    loop.requestExit();
    loop.messageQueue().enqueueMessage(makeCounted(1, handler, destroyed), 0ms);
    EXPECT_EQ(destroyed.load(), 1);
    EXPECT_EQ(capture.count("message queue is exiting, skip enqueueMessage()"), 1u);
    loop.dispatchMessages();  // returns at once: the queue is exiting
    EXPECT_TRUE(handler->ids().empty());
}

TEST_F(MessageQueueTest, MessagesQueuedAtExitAreDestroyedWithTheLoopNotDispatched) {
    auto handler = std::make_shared<RecordingHandler>();
    handler->holdFirstCall();
    std::atomic<int> destroyed{0};
    {
        MessageLoop loop;
        for (uint32_t id : {1u, 2u, 3u}) {
            loop.messageQueue().enqueueMessage(makeCounted(id, handler, destroyed), 0ms);
        }
        std::thread consumer([&] { loop.dispatchMessages(); });
        ASSERT_TRUE(handler->waitForCalls(1));  // message 1 is in hand
        loop.requestExit();
        handler->open();
        consumer.join();
        EXPECT_EQ(handler->ids(), (std::vector<uint32_t>{1}));
        EXPECT_EQ(destroyed.load(), 1);
    }
    EXPECT_EQ(destroyed.load(), 3);
    EXPECT_EQ(handler->ids().size(), 1u);
}

TEST_F(MessageQueueTest, EnqueueNeverWaitsWhateverItsTimeout) {
    std::atomic<int> destroyed{0};
    {
        MessageQueue queue;
        for (uint32_t id = 0; id < 1000; ++id) {
            queue.enqueueMessage(makeCounted(id, nullptr, destroyed), 5000ms);
        }
        EXPECT_EQ(capture.count("[enqueueMessage] an available message arrived: 1000 in total"),
                  1u);
    }
    EXPECT_EQ(destroyed.load(), 1000);
}

TEST_F(MessageQueueTest, MessageWithoutHandlerIsCountedAndDestroyed) {
    std::atomic<int> destroyed{0};
    auto handler = std::make_shared<RecordingHandler>();
    MessageLoop loop;
    auto orphan = makeCounted(1, nullptr, destroyed);
    orphan->setMessageHandler(nullptr);
    loop.messageQueue().enqueueMessage(std::move(orphan), 0ms);
    loop.messageQueue().enqueueMessage(makeMessage(2, handler), 0ms);
    std::thread consumer([&] { loop.dispatchMessages(); });
    ASSERT_TRUE(handler->waitForCalls(1));
    loop.requestExit();
    consumer.join();
    EXPECT_EQ(destroyed.load(), 1);
    EXPECT_EQ(handler->ids(), (std::vector<uint32_t>{2}));
    EXPECT_EQ(capture.count("[dispatchMessages] (1 message dispatched) -"), 1u);
    EXPECT_EQ(capture.count("[dispatchMessages] (2 message dispatched) -"), 1u);
}

// Per producer, the consumer must see every message, in that producer's
// order. Runs without a log capture: it is about the queue, not its lines.
class SequenceChecker : public MessageHandler {
  public:
    static constexpr uint32_t kProducerShift = 24;

    explicit SequenceChecker(size_t producers) : mNext(producers, 0) {}
    using MessageHandler::handleMessage;
    void handleMessage(std::unique_ptr<Message> message) override {
        const uint32_t id = message->id();
        const uint32_t producer = id >> kProducerShift;
        const uint32_t sequence = id & ((1u << kProducerShift) - 1);
        if (producer >= mNext.size() || mNext[producer] != sequence) {
            ++mOutOfOrder;
        } else {
            ++mNext[producer];
        }
        mHandled.fetch_add(1, std::memory_order_release);
    }

    // Read after the consumer has been joined.
    std::vector<uint32_t> mNext;
    int mOutOfOrder = 0;
    std::atomic<int> mHandled{0};
};

TEST(MessageQueueStress, SeveralProducersOneConsumerLoseNothing) {
    constexpr uint32_t kProducers = 4;
    constexpr uint32_t kPerProducer = 50000;
    Watchdog watchdog("several producers", 60s);
    auto checker = std::make_shared<SequenceChecker>(kProducers);
    MessageLoop loop;
    std::thread consumer([&] { loop.dispatchMessages(); });
    std::vector<std::thread> producers;
    for (uint32_t p = 0; p < kProducers; ++p) {
        producers.emplace_back([&, p] {
            for (uint32_t i = 0; i < kPerProducer; ++i) {
                loop.messageQueue().enqueueMessage(
                        makeMessage((p << SequenceChecker::kProducerShift) | i, checker), 0ms);
            }
        });
    }
    for (auto& producer : producers) {
        producer.join();
    }
    ASSERT_TRUE(waitUntil(
            [&] {
                return checker->mHandled.load(std::memory_order_acquire) ==
                       static_cast<int>(kProducers * kPerProducer);
            },
            40s));
    loop.requestExit();
    consumer.join();
    EXPECT_EQ(checker->mOutOfOrder, 0);
    EXPECT_EQ(checker->mNext, std::vector<uint32_t>(kProducers, kPerProducer));
}

}  // namespace
