// DequeHandler: running the runnable on the calling thread, the line when
// none is set, taking the runnable over by move and sharing its lifetime.
#include <gtest/gtest.h>
#include <ipc/DequeHandler.h>

#include <memory>
#include <thread>

#include "support/FunctionRunnable.h"
#include "support/LogCapture.h"

namespace {

using namespace Kestrel::ipc;
using namespace velacam::test;

TEST(DequeHandlerTest, RunsTheRunnableItTookOverOnTheCallingThreadOrLogsWithoutOne) {
    LogCapture capture;
    int runs = 0;
    std::thread::id thread;
    auto runnable = std::make_shared<FunctionRunnable>([&] {
        ++runs;
        thread = std::this_thread::get_id();
    });
    {
        DequeHandler handler(7);
        handler.handleDeque();
        ASSERT_EQ(capture.lines().size(), 1u);
        const auto line = capture.lines()[0];
        EXPECT_EQ(line.text, "The runnable is invalid, do nothing");
        EXPECT_EQ(line.level, 1u);
        EXPECT_EQ(line.tag, "DequeHandler");
        EXPECT_EQ(line.moduleId, 0x101006u);  // a synchronisation building block

        handler.setRunnable(runnable);
        handler.handleDeque();
        handler.handleDeque();
        EXPECT_EQ(runs, 2);
        EXPECT_EQ(thread, std::this_thread::get_id());
    }
    EXPECT_EQ(runnable.use_count(), 1);  // and drops it with itself
    EXPECT_EQ(capture.lines().size(), 1u);
}

}  // namespace
