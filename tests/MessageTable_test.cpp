// MessageTable: grouping by id, waking the declared waiters, and ownership of
// the messages it parks.
#include <gtest/gtest.h>
#include <ipc/Message.h>
#include <ipc/MessageHandler.h>
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

// A message of `id`; `type` tells messages of one id apart. A message
// carrying `handler` holds a reference to it, so the handler's use count
// (less the test's own) counts those messages alive.
std::unique_ptr<Message> makeMessage(uint32_t id, uint32_t type = 0,
                                     std::shared_ptr<MessageHandler> handler = nullptr) {
    auto message = std::make_unique<Message>(std::move(handler));
    message->setHeader(id, type, 0, 0, 0);
    return message;
}

class MessageTableTest : public DebugLogTest {
  protected:
    Watchdog watchdog{"MessageTable test", 30s};
    std::shared_ptr<MessageHandler> handler = std::make_shared<MessageHandler>();
};

TEST_F(MessageTableTest, MessagesOfOneIdAreExtractedTogetherAndSpareWaitsFindNothing) {
    MessageTable table(1);
    MessageList out;
    out.push_back(makeMessage(1, 0, handler));
    EXPECT_FALSE(table.extract(out));  // an empty table leaves the output alone
    EXPECT_EQ(handler.use_count(), 2);

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
        EXPECT_EQ(handler.use_count(), 1);  // what the output held was destroyed
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

// Producers on several threads; consumers following the documented pattern,
// one more of them than declared. The surplus one shows that requestExit()
// wakes exactly the declared waiters.
TEST_F(MessageTableTest, ConsumersReceiveEveryMessageAndExitWakesExactlyTheDeclaredWaiters) {
    constexpr int kMessages = 3 * 2000;
    std::atomic<int> received{0};
    std::atomic<int> mixedLists{0};
    std::atomic<int> returned{0};
    std::vector<std::thread> threads;
    {
        MessageTable table(2);
        for (int i = 0; i < 3; ++i) {
            threads.emplace_back([&] {
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
        // One wait per message, then each consumer blocks once more.
        ASSERT_TRUE(capture.waitFor("[wait] Block to wait for signal", kMessages + 3));
        EXPECT_EQ(mixedLists.load(), 0);
        EXPECT_TRUE(table.isEmpty());
        expectExitWakesExactly(
                returned, 2, [&] { table.notify(); }, [&] { table.requestExit(); });
        EXPECT_EQ(capture.count("MessageTable is exiting"), 2u);
        EXPECT_EQ(capture.count("[requestExit] Release Semaphore of MessageTable"), 1u);

        // Still accepted after exit; its unit frees the surplus waiter, which
        // sees the exit. The message stays until the table goes.
        table.update(makeMessage(1, 0, handler));
        for (auto& thread : threads) {
            thread.join();
        }
        EXPECT_EQ(capture.count("MessageTable is exiting"), 3u);
        EXPECT_FALSE(table.isEmpty());
        EXPECT_EQ(handler.use_count(), 2);
    }
    EXPECT_EQ(handler.use_count(), 1);
}

}  // namespace
