// MessageTable: grouping by id, waking the declared waiters, and ownership of
// the messages it parks.
#include <gtest/gtest.h>
#include <ipc/Message.h>
#include <ipc/MessageTable.h>

#include <atomic>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/LogChecks.h"
#include "support/Waiting.h"

namespace {

using namespace Kestrel::ipc;
using namespace velacam::test;
using MessageList = std::list<std::unique_ptr<Message>>;

class CountedMessage : public Message {
  public:
    explicit CountedMessage(std::atomic<int>& destroyed) : mDestroyed(destroyed) {}
    ~CountedMessage() override { ++mDestroyed; }

  private:
    std::atomic<int>& mDestroyed;
};

// A message of `id`; `type` tells messages of one id apart.
std::unique_ptr<Message> makeMessage(uint32_t id, uint32_t type = 0,
                                     std::atomic<int>* destroyed = nullptr) {
    auto message = destroyed != nullptr ? std::make_unique<CountedMessage>(*destroyed)
                                        : std::make_unique<Message>();
    message->setHeader(id, type, 0, 0, 0);
    return message;
}

class MessageTableTest : public DebugLogTest {
  protected:
    Watchdog watchdog{"MessageTable test", 30s};
    std::atomic<int> destroyed{0};
};

TEST_F(MessageTableTest, MessagesOfOneIdAreExtractedTogetherAndSpareWaitsFindNothing) {
    MessageTable table(1);
    MessageList out;
    out.push_back(makeMessage(1, 0, &destroyed));
    EXPECT_FALSE(table.extract(out));  // an empty table leaves the output alone
    EXPECT_EQ(destroyed.load(), 0);

    for (auto [id, type] : {std::pair{5u, 1u}, {9u, 1u}, {5u, 2u}, {5u, 3u}}) {
        table.update(makeMessage(id, type));
    }
    EXPECT_EQ(capture.count("[update] Release Semaphore of MessageTable"), 4u);
    std::map<uint32_t, std::vector<uint32_t>> types;
    int emptyExtracts = 0;
    for (int i = 0; i < 4; ++i) {
        ASSERT_TRUE(table.wait());
        if (!table.extract(out)) {
            ++emptyExtracts;
            continue;
        }
        EXPECT_EQ(destroyed.load(), 1);  // what the output held was replaced
        for (const auto& message : out) {
            EXPECT_EQ(message->id(), out.front()->id());
            types[message->id()].push_back(message->type());
        }
    }
    EXPECT_EQ(emptyExtracts, 2);
    EXPECT_EQ(types, (std::map<uint32_t, std::vector<uint32_t>>{{5, {1, 2, 3}}, {9, {1}}}));
    EXPECT_TRUE(table.isEmpty());
    EXPECT_EQ(capture.count("[wait] Extract next entry from MessageTable"), 4u);
    // Either id may come first; the count of ids is taken before the removal.
    const std::string prefix = "[extract] extracting entry from message table,sizeof map=";
    const std::string five = "msgID=5, sizeof list=3";
    const std::string nine = "msgID=9, sizeof list=1";
    const bool fiveFirst = capture.count(prefix + "2, " + five) == 1;
    EXPECT_EQ(capture.count(prefix + "2, " + (fiveFirst ? five : nine)), 1u);
    EXPECT_EQ(capture.count(prefix + "1, " + (fiveFirst ? nine : five)), 1u);
}

TEST_F(MessageTableTest, RequestExitWakesExactlyTheDeclaredWaitersAndNotifyNobody) {
    std::atomic<int> returned{0};
    std::atomic<int> trueResults{0};
    std::vector<std::thread> waiters;
    {
        MessageTable table(2);
        for (int i = 0; i < 3; ++i) {
            waiters.emplace_back([&] {
                trueResults += table.wait() ? 1 : 0;
                ++returned;
            });
        }
        ASSERT_TRUE(capture.waitFor("[wait] Block to wait for signal", 3));
        table.notify();
        std::this_thread::sleep_for(50ms);  // a window for a wrong wake-up
        EXPECT_EQ(returned.load(), 0);
        table.requestExit();
        EXPECT_TRUE(waitUntil([&] { return returned.load() == 2; }));
        std::this_thread::sleep_for(50ms);  // the surplus waiter must stay blocked
        EXPECT_EQ(returned.load(), 2);
        EXPECT_EQ(capture.count("MessageTable is exiting"), 2u);
        EXPECT_EQ(capture.count("[requestExit] Release Semaphore of MessageTable"), 1u);

        // Still accepted after exit; its unit frees the surplus waiter, which
        // sees the exit. The message stays until the table goes.
        table.update(makeMessage(1, 0, &destroyed));
        for (auto& waiter : waiters) {
            waiter.join();
        }
        EXPECT_EQ(trueResults.load(), 0);
        EXPECT_EQ(capture.count("MessageTable is exiting"), 3u);
        EXPECT_FALSE(table.isEmpty());
        EXPECT_EQ(destroyed.load(), 0);
    }
    EXPECT_EQ(destroyed.load(), 1);
}

// Producers on several threads, one consumer following the documented
// pattern: every message arrives once, grouped by id.
TEST(MessageTableConcurrency, ConsumerPatternReceivesEveryMessage) {
    constexpr int kProducers = 3;
    constexpr int kPerProducer = 2000;
    Watchdog watchdog("table consumer pattern", 60s);
    MessageTable table(1);
    std::atomic<int> received{0};
    std::atomic<int> mixedLists{0};
    std::thread consumer([&] {
        MessageList out;
        while (table.wait()) {
            if (table.extract(out)) {
                for (const auto& message : out) {
                    mixedLists += message->id() != out.front()->id() ? 1 : 0;
                }
                received += static_cast<int>(out.size());
            }
        }
    });
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p) {
        producers.emplace_back([&] {
            for (uint32_t i = 0; i < kPerProducer; ++i) {
                table.update(makeMessage(i % 8));
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
