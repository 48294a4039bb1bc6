// The library under load, bounded in work and in time: eight producers feeding
// one message loop lose nothing and keep each one's order.
// Labelled "stress" (ctest -L stress); it runs in every build of the matrix.
#include <gtest/gtest.h>
#include <ipc/Message.h>
#include <ipc/MessageHandler.h>
#include <ipc/MessageLoop.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include "support/Messages.h"
#include "support/Waiting.h"

namespace {

using namespace Kestrel::ipc;
using namespace velacam::test;

constexpr uint32_t kProducers = 8;
constexpr uint32_t kMessagesPerProducer = 25000;

// Counts on the loop's thread what each producer sent (its number is the
// message's type, the sequence its id); a message of type kProducers ends the
// loop. Read after the loop's thread has been joined.
class Tally : public MessageHandler {
  public:
    explicit Tally(MessageLoop& loop) : mLoop(loop) {}

    using MessageHandler::handleMessage;
    void handleMessage(std::unique_ptr<Message> message) override {
        if (message->type() >= kProducers) {
            mLoop.requestExit();
        } else if (message->id() == next[message->type()]) {
            ++next[message->type()];
            ++total;
        } else {
            ++outOfOrder;
        }
    }

    std::array<uint32_t, kProducers> next{};
    uint32_t total = 0;
    uint32_t outOfOrder = 0;

  private:
    MessageLoop& mLoop;
};

TEST(MessageLoopStress, EightProducersIntoOneLoopLoseNothingAndKeepEachOnesOrder) {
    Watchdog watchdog("message loop stress", 120s);
    MessageLoop loop;
    auto tally = std::make_shared<Tally>(loop);
    std::thread consumer([&] { loop.dispatchMessages(); });
    auto enqueue = [&](uint32_t id, uint32_t type) {
        loop.messageQueue().enqueueMessage(makeMessage(id, {}, {}, tally, type), 0ms);
    };

    std::promise<void> go;  // all producers start together
    std::shared_future<void> start = go.get_future().share();
    std::vector<std::thread> producers;
    for (uint32_t p = 0; p < kProducers; ++p) {
        producers.emplace_back([&, p] {
            start.wait();
            for (uint32_t n = 0; n < kMessagesPerProducer; ++n) {
                enqueue(n, p);
            }
        });
    }
    go.set_value();
    for (std::thread& producer : producers) {
        producer.join();
    }
    enqueue(0, kProducers);
    consumer.join();

    EXPECT_EQ(tally->outOfOrder, 0u);
    EXPECT_EQ(tally->total, kProducers * kMessagesPerProducer);  // in order only: all of each
}

}  // namespace
