// DequeHandler: runs the runnable it took over on the calling thread, logs
// an error without one, and drops the runnable with itself.
#include <gtest/gtest.h>
#include <ipc/DequeHandler.h>
#include <ipc/utils/FunctionRunnable.h>

#include <memory>
#include <thread>

#include "support/LogCapture.h"

namespace {

using namespace Kestrel::ipc;
using namespace velacam::test;
using Kestrel::ipc::utils::FunctionRunnable;

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
        EXPECT_EQ(capture.levelOf("The runnable is invalid, do nothing"), 1u);
        handler.setRunnable(runnable);
        handler.handleDeque();
        handler.handleDeque();
        EXPECT_EQ(runs, 2);
        EXPECT_EQ(thread, std::this_thread::get_id());
    }
    EXPECT_EQ(runnable.use_count(), 1);
}

}  // namespace
