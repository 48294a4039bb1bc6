// MessageTable: grouping by id, waking the declared waiters, ownership.
#include <gtest/gtest.h>
#include <ipc/Message.h>
#include <ipc/MessageHandler.h>
#include <ipc/MessageTable.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <list>
#include <map>
#include <memory>
#include <thread>
#include <vector>

#include "support/LogCapture.h"
#include "support/Messages.h"
#include "support/Waiting.h"

namespace {

using namespace Kestrel::ipc;
using namespace velacam::test;
using MessageList = std::list<std::unique_ptr<Message>>;

// Each message holds a reference to its handler.
class MessageTableTest : public ::testing::Test {
  protected:
    LogCapture capture;
    Watchdog watchdog{"MessageTable case", 60s};
    std::shared_ptr<MessageHandler> handler = std::make_shared<MessageHandler>();
};

// The first data byte tells messages of one id apart.
TEST_F(MessageTableTest, MessagesOfOneIdAreExtractedTogetherAndSpareWaitsFindNothing) {
    MessageTable table(1);
    MessageList out;
    out.push_back(makeMessage(1, {}, {}, handler));
    EXPECT_FALSE(table.extract(out));  // an empty table leaves the output alone
    EXPECT_EQ(handler.use_count(), 2);
    for (auto [id, tag] : {std::pair{5u, 1}, {9u, 1}, {5u, 2}, {5u, 3}}) {
        table.update(makeMessage(id, {static_cast<uint8_t>(tag)}));
    }
    std::map<uint32_t, std::vector<uint8_t>> tags;
    int emptyExtracts = 0;
    for (int i = 0; i < 4; ++i) {  // one unit per message, none to spare
        ASSERT_TRUE(table.wait());
        if (!table.extract(out)) {
            ++emptyExtracts;
            continue;
        }
        EXPECT_EQ(handler.use_count(), 1);  // what the output held was destroyed
        for (const auto& message : out) {
            tags[message->id()].push_back(message->payload().data.at(0));
        }
    }
    EXPECT_EQ(emptyExtracts, 2);
    EXPECT_EQ(tags, (std::map<uint32_t, std::vector<uint8_t>>{{5, {1, 2, 3}}, {9, {1}}}));
    EXPECT_TRUE(table.isEmpty());
}

// Consumers follow the documented pattern, one more of them than declared.
TEST_F(MessageTableTest, ConsumersReceiveEveryMessageAndExitWakesExactlyTheDeclaredWaiters) {
    constexpr int kMessages = 3 * 2000;
    std::atomic<int> received{0};
    std::atomic<int> mixedLists{0};
    std::atomic<int> returned{0};
    std::array<std::atomic<pid_t>, 3> consumers{};
    std::vector<std::thread> threads;
    {
        MessageTable table(2);
        for (int i = 0; i < 3; ++i) {
            threads.emplace_back([&, i] {
                consumers[i] = gettid();
                MessageList out;
                while (table.wait()) {
                    if (table.extract(out)) {
                        for (const auto& message : out) {
                            mixedLists += message->id() != out.front()->id() ? 1 : 0;
                        }
                        received += static_cast<int>(out.size());
                    }
                }
                ++returned;
            });
            threads.emplace_back([&] {
                for (uint32_t n = 0; n < kMessages / 3; ++n) {
                    table.update(makeMessage(n % 8));
                }
            });
        }
        ASSERT_TRUE(waitUntil([&] { return received.load() == kMessages; }, 40s));
        for (const auto& consumer : consumers) {
            ASSERT_TRUE(waitUntil([&] { return consumer != 0; }) && waitUntilAsleep(consumer));
        }
        EXPECT_EQ(mixedLists.load(), 0);
        EXPECT_TRUE(table.isEmpty());
        expectExitWakesExactly(
                returned, 2, [&] { table.notify(); }, [&] { table.requestExit(); });
        EXPECT_EQ(capture.count("MessageTable is exiting"), 2u);

        // Accepted after exit; frees the surplus waiter, stays until the table goes.
        table.update(makeMessage(1, {}, {}, handler));
        for (auto& thread : threads) {
            thread.join();
        }
        EXPECT_FALSE(table.isEmpty());
        EXPECT_EQ(handler.use_count(), 2);
    }
    EXPECT_EQ(handler.use_count(), 1);
}

}  // namespace
