// The slow-dispatch warning: one line when an episode of slow dispatches
// begins, one when the loop is back under its threshold, none per message.
#include <gtest/gtest.h>
#include <ipc/Message.h>
#include <ipc/MessageHandler.h>
#include <ipc/MessageLoop.h>
#include <ipc/SlowDispatchWarning.h>

#include <chrono>
#include <future>
#include <thread>

#include "support/LogCapture.h"
#include "support/Messages.h"
#include "support/Waiting.h"

namespace velacam::test {
namespace {

using Kestrel::ipc::Message;
using Kestrel::ipc::MessageHandler;
using Kestrel::ipc::MessageLoop;
using Kestrel::ipc::SlowDispatchWarning;

constexpr uint32_t kFast = 1;
constexpr uint32_t kSlow = 2;
constexpr uint32_t kLast = 3;
// Far above what an empty handler takes, even under a sanitizer on a busy
// machine; a slow handler sleeps well past it.
constexpr auto kThreshold = std::chrono::milliseconds(100);
constexpr auto kSlowSleep = std::chrono::milliseconds(150);

class Sleeper : public MessageHandler {
  public:
    using MessageHandler::handleMessage;
    void handleMessage(std::unique_ptr<Message> message) override {
        if (message->type() == kSlow) {
            std::this_thread::sleep_for(kSlowSleep);
        }
        if (message->type() == kLast) {
            mLast.set_value();
        }
    }
    std::promise<void> mLast;
};

// Queues messages of `types` for `handler` (the last of kLast), dispatches
// them on a thread of its own, and returns once the last was handled.
void dispatchAll(MessageLoop& loop, const std::shared_ptr<Sleeper>& handler,
                 std::initializer_list<uint32_t> types) {
    for (uint32_t type : types) {
        loop.messageQueue().enqueueMessage(makeMessage(1, {}, {}, handler, type),
                                           std::chrono::milliseconds(0));
    }
    std::thread dispatcher([&loop] { loop.dispatchMessages(); });
    EXPECT_EQ(handler->mLast.get_future().wait_for(std::chrono::seconds(30)),
              std::future_status::ready);
    loop.requestExit();
    dispatcher.join();
}

TEST(SlowDispatchWarningTest, Episodes_LogOneLineAtTheStartAndOneBackUnder) {
    Watchdog watchdog("slow dispatch case", std::chrono::seconds(60));
    LogCapture capture;
    auto handler = std::make_shared<Sleeper>();
    MessageLoop loop;
    EXPECT_EQ(SlowDispatchWarning::thresholdOf(loop).count(), 0);
    SlowDispatchWarning::watch(loop, kThreshold);
    EXPECT_EQ(SlowDispatchWarning::thresholdOf(loop), kThreshold);

    // fast, slow, slow, fast, slow, last(fast): two episodes.
    dispatchAll(loop, handler, {kFast, kSlow, kSlow, kFast, kSlow, kLast});

    EXPECT_EQ(capture.countContaining("slow dispatch: message type 2 took "), 2u);
    EXPECT_EQ(capture.countContaining("(threshold 100.000 ms)"), 2u);
    EXPECT_EQ(capture.countContaining("dispatch back under 100.000 ms: 2 slow in a row"), 1u);
    EXPECT_EQ(capture.countContaining("dispatch back under 100.000 ms: 1 slow in a row"), 1u);
    for (const LogLine& line : capture.lines()) {
        if (line.text.find("dispatch") != std::string::npos) {
            EXPECT_EQ(line.tag, "MessageLoop");
            EXPECT_EQ(line.level, 2u);  // warning
        }
    }
}

TEST(SlowDispatchWarningTest, Unwatched_ThresholdZero_LogsNothing) {
    LogCapture capture;
    auto handler = std::make_shared<Sleeper>();
    MessageLoop loop;
    SlowDispatchWarning::watch(loop, kThreshold);
    SlowDispatchWarning::watch(loop, std::chrono::milliseconds(0));
    dispatchAll(loop, handler, {kSlow, kLast});
    EXPECT_EQ(capture.countContaining("dispatch"), 0u);
}

}  // namespace
}  // namespace velacam::test
