// MessageTable: grouping by id, waking the declared waiters, and ownership of
// the messages it parks.
#include <gtest/gtest.h>
#include <ipc/Message.h>
#include <ipc/MessageTable.h>
#include <ipc/utils/Log.h>

#include <atomic>
#include <list>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/LogCapture.h"
#include "support/Waiting.h"

namespace {

using Kestrel::ipc::Message;
using Kestrel::ipc::MessageTable;
using Kestrel::ipc::utils::LogSetting;
using velacam::test::LogCapture;
using velacam::test::waitUntil;
using velacam::test::Watchdog;
using namespace std::chrono_literals;
using MessageList = std::list<std::unique_ptr<Message>>;

class CountedMessage : public Message {
  public:
    explicit CountedMessage(std::atomic<int>& destroyed) : mDestroyed(destroyed) {}
    ~CountedMessage() override { ++mDestroyed; }

  private:
    std::atomic<int>& mDestroyed;
};

// A message of `id`; `type` tells messages of one id apart.
std::unique_ptr<Message> makeMessage(uint32_t id, uint32_t type = 0) {
    auto message = std::make_unique<Message>();
    message->setHeader(id, type, 0, 0, 0);
    return message;
}

std::unique_ptr<Message> makeCounted(uint32_t id, std::atomic<int>& destroyed) {
    auto message = std::make_unique<CountedMessage>(destroyed);
    message->setHeader(id, 0, 0, 0, 0);
    return message;
}

class MessageTableTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (LogSetting::logLevel() < 1) {
            GTEST_SKIP() << "needs the debug property";
        }
    }

    // Starts `n` threads that each call wait() once and record the result.
    void startWaiters(MessageTable& table, int n) {
        for (int i = 0; i < n; ++i) {
            waiters.emplace_back([this, &table] {
                const bool result = table.wait();
                trueResults += result ? 1 : 0;
                ++returned;
            });
        }
        ASSERT_TRUE(capture.waitFor("[wait] Block to wait for signal", static_cast<size_t>(n)));
    }
    void joinWaiters() {
        for (auto& waiter : waiters) {
            waiter.join();
        }
    }

    LogCapture capture;
    Watchdog watchdog{"MessageTable test", 30s};
    std::vector<std::thread> waiters;
    std::atomic<int> returned{0};
    std::atomic<int> trueResults{0};
};

TEST_F(MessageTableTest, MessagesOfOneIdAreExtractedTogetherAndSpareWaitsFindNothing) {
    MessageTable table(1);
    table.update(makeMessage(5, 1));
    table.update(makeMessage(9, 1));
    table.update(makeMessage(5, 2));
    table.update(makeMessage(5, 3));
    EXPECT_EQ(capture.count("[update] Release Semaphore of MessageTable"), 4u);

    std::vector<MessageList> extracted;
    int emptyExtracts = 0;
    for (int i = 0; i < 4; ++i) {
        ASSERT_TRUE(table.wait());
        MessageList out;
        if (table.extract(out)) {
            extracted.push_back(std::move(out));
        } else {
            ++emptyExtracts;
        }
    }
    EXPECT_EQ(emptyExtracts, 2);
    ASSERT_EQ(extracted.size(), 2u);
    EXPECT_TRUE(table.isEmpty());

    std::vector<uint32_t> fives;
    std::vector<uint32_t> nines;
    for (const MessageList& list : extracted) {
        for (const auto& message : list) {
            (message->id() == 5 ? fives : nines).push_back(message->type());
        }
        EXPECT_TRUE(list.front()->id() == 5 ? list.size() == 3 : list.size() == 1);
    }
    EXPECT_EQ(fives, (std::vector<uint32_t>{1, 2, 3}));
    EXPECT_EQ(nines, (std::vector<uint32_t>{1}));

    const uint32_t firstId = extracted[0].front()->id();
    const std::string first = firstId == 5 ? "msgID=5, sizeof list=3" : "msgID=9, sizeof list=1";
    const std::string second = firstId == 5 ? "msgID=9, sizeof list=1" : "msgID=5, sizeof list=3";
    EXPECT_EQ(capture.count("[extract] extracting entry from message table,sizeof map=2, " + first),
              1u);
    EXPECT_EQ(
            capture.count("[extract] extracting entry from message table,sizeof map=1, " + second),
            1u);
    EXPECT_EQ(capture.count("[wait] Extract next entry from MessageTable"), 4u);
}

TEST_F(MessageTableTest, ExtractReplacesWhatTheOutputHeldAndLeavesItAloneWhenEmpty) {
    std::atomic<int> destroyed{0};
    MessageTable table(1);
    MessageList out;
    out.push_back(makeCounted(1, destroyed));
    out.push_back(makeCounted(2, destroyed));

    EXPECT_FALSE(table.extract(out));
    EXPECT_EQ(out.size(), 2u);
    EXPECT_EQ(destroyed.load(), 0);

    table.update(makeMessage(7));
    ASSERT_TRUE(table.extract(out));
    EXPECT_EQ(destroyed.load(), 2);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out.front()->id(), 7u);
}

TEST_F(MessageTableTest, RequestExitWakesExactlyTheDeclaredWaiters) {
    MessageTable table(2);
    startWaiters(table, 3);
    table.requestExit();
    EXPECT_TRUE(waitUntil([&] { return returned.load() == 2; }));
    std::this_thread::sleep_for(50ms);  // the surplus waiter must stay blocked
    EXPECT_EQ(returned.load(), 2);
    EXPECT_EQ(capture.count("MessageTable is exiting"), 2u);
    EXPECT_EQ(capture.count("[requestExit] Release Semaphore of MessageTable"), 1u);

    table.update(makeMessage(1));  // its unit frees the surplus waiter, which sees the exit
    joinWaiters();
    EXPECT_EQ(trueResults.load(), 0);
    EXPECT_EQ(capture.count("MessageTable is exiting"), 3u);
}

TEST_F(MessageTableTest, NotifyWakesNobody) {
    MessageTable table(1);
    startWaiters(table, 1);
    table.notify();
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(returned.load(), 0);
    table.requestExit();
    joinWaiters();
    EXPECT_EQ(returned.load(), 1);
    EXPECT_EQ(trueResults.load(), 0);
}

TEST_F(MessageTableTest, MessagesStoredAfterExitAreKeptAndDestroyedWithTheTable) {
    std::atomic<int> destroyed{0};
    {
        MessageTable table(1);
        table.requestExit();
        table.update(makeCounted(3, destroyed));
        table.update(makeCounted(3, destroyed));
        EXPECT_FALSE(table.isEmpty());
        EXPECT_FALSE(table.wait());
        EXPECT_EQ(destroyed.load(), 0);
    }
    EXPECT_EQ(destroyed.load(), 2);
}

// Producers on several threads, one consumer following the documented
// pattern: every message arrives once, grouped by id.
TEST(MessageTableConcurrency, ConsumerPatternReceivesEveryMessage) {
    constexpr int kProducers = 3;
    constexpr int kPerProducer = 2000;
    constexpr uint32_t kIds = 8;
    Watchdog watchdog("table consumer pattern", 60s);
    MessageTable table(1);
    std::atomic<int> received{0};
    std::atomic<int> mixedLists{0};
    std::thread consumer([&] {
        while (table.wait()) {
            MessageList out;
            if (!table.extract(out)) {
                continue;
            }
            for (const auto& message : out) {
                mixedLists += message->id() != out.front()->id() ? 1 : 0;
            }
            received += static_cast<int>(out.size());
        }
    });
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p) {
        producers.emplace_back([&] {
            for (int i = 0; i < kPerProducer; ++i) {
                table.update(makeMessage(static_cast<uint32_t>(i) % kIds));
            }
        });
    }
    for (auto& producer : producers) {
        producer.join();
    }
    ASSERT_TRUE(waitUntil([&] { return received.load() == kProducers * kPerProducer; }, 40s));
    table.requestExit();
    consumer.join();
    EXPECT_EQ(mixedLists.load(), 0);
    EXPECT_TRUE(table.isEmpty());
}

}  // namespace
