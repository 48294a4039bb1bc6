// DequeHandler: running the runnable on the calling thread, the line when
// none is set, taking the runnable over by move and sharing its lifetime.
#include <gtest/gtest.h>
#include <ipc/DequeHandler.h>
#include <ipc/utils/Runnable.h>

#include <memory>
#include <thread>

#include "support/LogCapture.h"

namespace {

using Kestrel::ipc::DequeHandler;
using Kestrel::ipc::utils::Runnable;
using velacam::test::LogCapture;

class CountingRunnable : public Runnable {
  public:
    void run() override {
        ++runs;
        thread = std::this_thread::get_id();
    }
    int runs = 0;
    std::thread::id thread;
};

TEST(DequeHandlerTest, WithoutRunnable_LogsAnErrorAndDoesNothingElse) {
    LogCapture capture;
    DequeHandler(3).handleDeque();
    ASSERT_EQ(capture.lines().size(), 1u);
    const auto line = capture.lines()[0];
    EXPECT_EQ(line.text, "The runnable is invalid, do nothing");
    EXPECT_EQ(line.level, 1u);
    EXPECT_EQ(line.tag, "DequeHandler");
    EXPECT_EQ(line.moduleId, 0x101006u);  // a synchronisation building block
}

TEST(DequeHandlerTest, RunsTheRunnableItTookOverOnTheCallingThreadAndSharesItsLifetime) {
    LogCapture capture;
    auto runnable = std::make_shared<CountingRunnable>();
    auto moved = runnable;
    {
        DequeHandler handler(7);
        handler.setRunnable(std::move(moved));
        EXPECT_EQ(moved, nullptr);  // NOLINT(bugprone-use-after-move): taken over
        EXPECT_EQ(runnable.use_count(), 2);
        handler.handleDeque();
        handler.handleDeque();
        EXPECT_EQ(runnable->runs, 2);
        EXPECT_EQ(runnable->thread, std::this_thread::get_id());

        handler.setRunnable(std::make_shared<CountingRunnable>());
        EXPECT_EQ(runnable.use_count(), 1);  // the handler let the previous one go
        moved = runnable;
        handler.setRunnable(std::move(moved));
        EXPECT_EQ(runnable.use_count(), 2);
    }
    EXPECT_EQ(runnable.use_count(), 1);  // and drops it with itself
    EXPECT_EQ(capture.lines().size(), 0u);
}

}  // namespace
