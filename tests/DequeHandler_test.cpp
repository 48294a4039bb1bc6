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

TEST(DequeHandlerTest, WithoutRunnable_LogsAndDoesNothingElse) {
    LogCapture capture;
    DequeHandler handler(3);
    handler.handleDeque();
    ASSERT_EQ(capture.lines().size(), 1u);
    const auto line = capture.lines()[0];
    EXPECT_EQ(line.text, "The runnable is invalid, do nothing");
    EXPECT_EQ(line.level, 1u);
    EXPECT_EQ(line.tag, "DequeHandler");
    EXPECT_EQ(line.moduleId, 0x101006u);  // a synchronisation building block
}

TEST(DequeHandlerTest, RunsTheRunnableOncePerCallOnTheCallingThread) {
    LogCapture capture;
    DequeHandler handler(7);
    EXPECT_EQ(handler.id(), 7);
    auto runnable = std::make_shared<CountingRunnable>();
    CountingRunnable* raw = runnable.get();
    std::weak_ptr<CountingRunnable> watch = runnable;
    handler.setRunnable(std::move(runnable));
    EXPECT_EQ(runnable, nullptr);  // taken over
    handler.handleDeque();
    handler.handleDeque();
    EXPECT_EQ(raw->runs, 2);
    EXPECT_EQ(raw->thread, std::this_thread::get_id());
    EXPECT_FALSE(watch.expired());  // the handler keeps it alive
    EXPECT_EQ(capture.lines().size(), 0u);

    std::shared_ptr<Runnable> next = std::make_shared<CountingRunnable>();
    handler.setRunnable(std::move(next));
    EXPECT_TRUE(watch.expired());  // the previous one had no other owner
}

TEST(DequeHandlerTest, SharedRunnableOutlivesTheHandler) {
    auto runnable = std::make_shared<CountingRunnable>();
    {
        DequeHandler handler(1);
        std::shared_ptr<CountingRunnable> copy = runnable;
        handler.setRunnable(std::move(copy));
        EXPECT_EQ(runnable.use_count(), 2);
        handler.handleDeque();
    }
    EXPECT_EQ(runnable.use_count(), 1);
    EXPECT_EQ(runnable->runs, 1);
}

}  // namespace
