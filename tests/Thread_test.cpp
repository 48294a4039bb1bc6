// Thread and ThreadData: main-thread rules, per-thread loops, join, moves.
#include <gtest/gtest.h>
#include <ipc/Message.h>
#include <ipc/MessageHandler.h>
#include <ipc/MessageLoop.h>
#include <ipc/MessageQueue.h>
#include <ipc/utils/FunctionRunnable.h>
#include <ipc/utils/Thread.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <future>
#include <thread>

#include "support/LogCapture.h"
#include "support/Messages.h"
#include "support/Waiting.h"

namespace {

using namespace Kestrel::ipc;
using namespace Kestrel::ipc::utils;
using namespace velacam::test;

constexpr auto kLimit = 20s;

class ThreadTest : public ::testing::Test {
  protected:
    LogCapture mCapture;  // before any thread starts
};

struct RunCounts {
    std::atomic<int> started{0};
    std::atomic<int> finished{0};
    std::atomic<int> destroyed{0};
};

// Counts its runs and its destruction; after `body`, writes a member of its
// own: a runnable freed while a thread still runs it is a use-after-free under ASan.
class CountedRunnable : public Runnable {
  public:
    CountedRunnable(RunCounts& counts, std::function<void()> body)
        : mCounts(counts), mBody(std::move(body)) {}
    ~CountedRunnable() override { ++mCounts.destroyed; }
    void run() override {
        ++mCounts.started;
        mBody();
        mCounts.finished = ++mRuns;
    }

  private:
    RunCounts& mCounts;
    std::function<void()> mBody;
    std::atomic<int> mRuns{0};
};

TEST_F(ThreadTest, MainHasTheStaticThreadAndNoLoop_EachStartedThreadItsOwnRecordAndLoop) {
    Thread* main = Thread::myThread();
    ASSERT_NE(main, nullptr);
    EXPECT_EQ(ThreadData::myData().thread(), main);
    EXPECT_EQ(ThreadData::myData().tid(), getpid());
    EXPECT_EQ(Thread().id(), getpid());
    EXPECT_EQ(Thread::myMessageLoop(), nullptr);
    EXPECT_EQ(mCapture.levelOf("only non-main thread can reach here."), 2u);

    // Thread 0 dispatches its loop; both keep their records until `leave`.
    Watchdog watchdog("per-thread loops", 60s);
    std::array<std::atomic<MessageLoop*>, 2> loops{};
    std::promise<void> leave;
    std::shared_future<void> left = leave.get_future().share();
    std::array<Thread, 2> threads;
    for (size_t i = 0; i < threads.size(); ++i) {
        threads[i] = Thread(new FunctionRunnable([&, i, left] {
                                MessageLoop* loop = Thread::myMessageLoop();
                                EXPECT_EQ(Thread::myThread(), &threads[i]);
                                EXPECT_EQ(ThreadData::myData().tid(), gettid());
                                EXPECT_EQ(threads[i].id(), gettid());  // the caller's, always
                                EXPECT_EQ(Thread::myMessageLoop(), loop);
                                EXPECT_NE(gettid(), getpid());
                                loops[i] = loop;
                                if (i == 0 && loop != nullptr) {
                                    loop->dispatchMessages();
                                }
                                left.wait_for(kLimit);  // each record lives until then
                            }),
                            true);
        threads[i].start();
    }
    ASSERT_TRUE(waitUntil([&] { return loops[0] != nullptr && loops[1] != nullptr; }, kLimit));
    EXPECT_NE(loops[0].load(), loops[1].load());

    EXPECT_EQ(threads[0].id(), getpid());
    EXPECT_EQ(mCapture.count("only non-main thread can reach here."), 1u);

    // What waits in thread 1's loop goes with that thread's record.
    std::atomic<uint32_t> handled{0};  // a bit for each message handled
    auto handler = std::make_shared<FunctionHandler>(
            [&handled](std::unique_ptr<Message> m) { handled |= 1u << m->id(); });
    for (uint32_t id : {1u, 2u, 3u}) {
        loops[id == 2 ? 1 : 0].load()->messageQueue().enqueueMessage(
                makeMessage(id, {}, {}, handler), 0ms);
    }
    constexpr uint32_t kOneAndThree = (1u << 1) | (1u << 3);
    ASSERT_TRUE(waitUntil([&] { return handled == kOneAndThree; }, kLimit));
    loops[0].load()->requestExit();
    EXPECT_TRUE(waitUntil([&] { return handler.use_count() == 2; }, kLimit));  // 2 still queued
    leave.set_value();
    threads[0].wait();
    threads[1].wait();
    EXPECT_EQ(handler.use_count(), 1);
    EXPECT_EQ(handled, kOneAndThree);
}

TEST_F(ThreadTest, DestructionJoinsBeforeDestroyingTheOwnedRunnableOnly) {
    RunCounts counts;
    std::atomic<bool> ranBeforeDestruction{false};
    std::promise<void> gate;
    std::shared_future<void> opened = gate.get_future().share();
    const pid_t self = gettid();
    std::thread opener;  // opens the gate once this thread sleeps in the destructor
    {
        Thread thread(new CountedRunnable(counts,
                                          [&, opened] {
                                              opened.wait_for(kLimit);
                                              ranBeforeDestruction = counts.destroyed == 0;
                                          }),
                      true);
        thread.start();
        opener = std::thread([&gate, self] {
            waitUntilAsleep(self);
            gate.set_value();
        });
    }
    opener.join();
    EXPECT_TRUE(ranBeforeDestruction);
    EXPECT_EQ(counts.destroyed, 1);
    {
        CountedRunnable notOwned(counts, [] {});
        Thread(&notOwned, false).start();
        EXPECT_EQ(counts.destroyed, 1);
    }
    EXPECT_EQ(counts.destroyed, 2);
}

std::function<void()> waiterFor(std::promise<void>& gate) {
    return [opened = gate.get_future().share()] { opened.wait_for(kLimit); };
}

TEST_F(ThreadTest, MoveHandsOnTheRunnableOnly_ItLivesUntilItsOwnerAndEveryRunningThreadLetGo) {
    Watchdog watchdog("moves of started threads", 60s);
    {  // the moved-to owner goes first, while the source's thread runs
        RunCounts counts;
        std::promise<void> gate;
        Thread source(new CountedRunnable(counts, waiterFor(gate)), true);
        source.start();
        ASSERT_TRUE(waitUntil([&] { return counts.started == 1; }, kLimit));
        { Thread moved(std::move(source)); }
        EXPECT_EQ(counts.destroyed, 0);
        gate.set_value();
        source.wait();
        EXPECT_EQ(counts.finished, 1);
        EXPECT_EQ(counts.destroyed, 1);
    }
    {  // start() on the moved-to object: a second thread on the same runnable
        RunCounts counts;
        std::promise<void> gate;
        Thread source(new CountedRunnable(counts, waiterFor(gate)), true);
        source.start();
        ASSERT_TRUE(waitUntil([&] { return counts.started == 1; }, kLimit));
        Thread moved(std::move(source));
        moved.start();
        ASSERT_TRUE(waitUntil([&] { return counts.started == 2; }, kLimit));
        Thread assigned;
        assigned = std::move(moved);  // `moved` keeps its thread, to join
        gate.set_value();
        moved.wait();
        source.wait();
        EXPECT_EQ(counts.finished, 2);
        EXPECT_EQ(counts.destroyed, 0);  // `assigned` still owns it
    }
    RunCounts counts;
    Thread target(new CountedRunnable(counts, [] {}), true);
    target = Thread(new FunctionRunnable([] {}), true);
    EXPECT_EQ(counts.destroyed, 1);  // the replaced runnable went at once
}

using ThreadDeathTest = ThreadTest;

TEST_F(ThreadDeathTest, MainAndNonMainRulesEndTheProcess) {
    EXPECT_DEATH(std::thread([] { ThreadData::myData(); }).join(),
                 "Thread: only the main thread can reach here\\. "
                 "\\(myData\\)\\{#[0-9]+:ipc/utils/Thread\\}");
    EXPECT_DEATH(std::thread([] { Thread::myThread(); }).join(),
                 "Thread: only the main thread can reach here\\.");
    EXPECT_DEATH(Thread().preTask(),
                 "Thread: only non-main thread can reach here\\. "
                 "\\(preTask\\)\\{#[0-9]+:ipc/utils/Thread\\}");
    EXPECT_DEATH(Thread().postTask(),
                 "Thread: only non-main threa can reach here\\. "
                 "\\(postTask\\)\\{#[0-9]+:ipc/utils/Thread\\}");
}

}  // namespace
