// The slow-dispatch warning: one line when an episode of slow dispatches
// begins, one when the loop is back under its threshold, none per message.
#include <gtest/gtest.h>
#include <ipc/MessageLoop.h>
#include <ipc/SlowDispatchWarning.h>

#include <chrono>
#include <thread>

#include "support/LogCapture.h"
#include "support/Messages.h"
#include "support/Waiting.h"

namespace velacam::test {
namespace {

using namespace Kestrel::ipc;

// Far above an empty handler's time, even under a sanitizer; a slow one sleeps past it.
constexpr auto kThreshold = 100ms;
constexpr uint32_t kSlow = 2;

// Dispatches messages of `types` (1 fast, 2 slow) on this thread; returns after the last.
void dispatchAll(MessageLoop& loop, std::initializer_list<uint32_t> types) {
    auto handler = std::make_shared<FunctionHandler>([&loop, &types](std::unique_ptr<Message> m) {
        if (m->type() == kSlow) {
            std::this_thread::sleep_for(150ms);
        }
        if (m->id() == types.size()) {
            loop.requestExit();
        }
    });
    uint32_t id = 0;
    for (uint32_t type : types) {
        loop.messageQueue().enqueueMessage(makeMessage(++id, {}, {}, handler, type), 0ms);
    }
    loop.dispatchMessages();
}

TEST(SlowDispatchWarningTest, Episodes_LogOneLineAtTheStartAndOneBackUnder) {
    Watchdog watchdog("slow dispatch case", 60s);
    LogCapture capture;
    MessageLoop loop;
    SlowDispatchWarning::watch(loop, kThreshold);
    dispatchAll(loop, {1, kSlow, kSlow, 1, kSlow, 1});  // two episodes
    EXPECT_EQ(capture.countContaining("slow dispatch: message type 2 took "), 2u);
    EXPECT_EQ(capture.countContaining("(threshold 100.000 ms)"), 2u);
    EXPECT_EQ(capture.countContaining("dispatch back under 100.000 ms: 2 slow in a row"), 1u);
    EXPECT_EQ(capture.countContaining("dispatch back under 100.000 ms: 1 slow in a row"), 1u);
    for (const LogLine& line : capture.lines()) {
        if (line.text.find("dispatch") != std::string::npos) {
            EXPECT_EQ(std::make_pair(line.tag, line.level),
                      std::make_pair(std::string("MessageLoop"), 2u));
        }
    }

    capture.clear();  // a threshold of 0 stops watching
    MessageLoop unwatched;
    SlowDispatchWarning::watch(unwatched, kThreshold);
    SlowDispatchWarning::watch(unwatched, 0ms);
    dispatchAll(unwatched, {kSlow, 1});
    EXPECT_EQ(capture.countContaining("dispatch"), 0u);
}

}  // namespace
}  // namespace velacam::test
