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

// Calls `body`; counts its own destruction in `destroyed`.
class CountedRunnable : public Runnable {
  public:
    CountedRunnable(std::function<void()> body, std::atomic<int>& destroyed)
        : mBody(std::move(body)), mDestroyed(destroyed) {}
    ~CountedRunnable() override { ++mDestroyed; }
    void run() override { mBody(); }

  private:
    std::function<void()> mBody;
    std::atomic<int>& mDestroyed;
};

// Marks each message it handles in a bit mask.
class MarkingHandler : public MessageHandler {
  public:
    using MessageHandler::handleMessage;
    void handleMessage(std::unique_ptr<Message> message) override {
        handled |= 1u << message->id();
    }
    std::atomic<uint32_t> handled{0};
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
    auto handler = std::make_shared<MarkingHandler>();
    for (uint32_t id : {1u, 2u, 3u}) {
        loops[id == 2 ? 1 : 0].load()->messageQueue().enqueueMessage(
                makeMessage(id, {}, {}, handler), 0ms);
    }
    constexpr uint32_t kOneAndThree = (1u << 1) | (1u << 3);
    ASSERT_TRUE(waitUntil([&] { return handler->handled == kOneAndThree; }, kLimit));
    loops[0].load()->requestExit();
    EXPECT_TRUE(waitUntil([&] { return handler.use_count() == 2; }, kLimit));  // 2 still queued
    leave.set_value();
    threads[0].wait();
    threads[1].wait();
    EXPECT_EQ(handler.use_count(), 1);
    EXPECT_EQ(handler->handled, kOneAndThree);
}

TEST_F(ThreadTest, DestructionJoinsBeforeDestroyingTheOwnedRunnableOnly) {
    std::atomic<int> destroyed{0};
    std::atomic<bool> ranBeforeDestruction{false};
    std::promise<void> gate;
    std::shared_future<void> opened = gate.get_future().share();
    // Opened once this thread sleeps in the destructor, which must join first.
    const pid_t self = gettid();
    std::thread opener;
    {
        Thread thread(new CountedRunnable(
                              [&, opened] {
                                  opened.wait_for(kLimit);
                                  ranBeforeDestruction = destroyed == 0;
                              },
                              destroyed),
                      true);
        thread.start();
        opener = std::thread([&gate, self] {
            waitUntilAsleep(self);
            gate.set_value();
        });
    }
    opener.join();
    EXPECT_TRUE(ranBeforeDestruction);
    EXPECT_EQ(destroyed, 1);
    {
        CountedRunnable notOwned([] {}, destroyed);
        Thread(&notOwned, false).start();
        EXPECT_EQ(destroyed, 1);
    }
    EXPECT_EQ(destroyed, 2);
}

struct RunCounts {
    std::atomic<int> started{0};
    std::atomic<int> finished{0};
    std::atomic<int> destroyed{0};
};

// Waits for a gate, then writes a member of its own: a runnable freed while a
// thread still runs it is a heap-use-after-free under ASan.
class GatedRunnable : public Runnable {
  public:
    GatedRunnable(std::shared_future<void> gate, RunCounts& counts)
        : mGate(std::move(gate)), mCounts(counts) {}
    ~GatedRunnable() override { ++mCounts.destroyed; }
    void run() override {
        ++mCounts.started;
        mGate.wait_for(kLimit);
        mCounts.finished = ++mRuns;
    }

  private:
    std::shared_future<void> mGate;
    RunCounts& mCounts;
    std::atomic<int> mRuns{0};
};

TEST_F(ThreadTest, MoveHandsOnTheRunnableOnly_ItLivesUntilItsOwnerAndEveryRunningThreadLetGo) {
    Watchdog watchdog("moves of started threads", 60s);
    {  // the moved-to owner goes first, while the source's thread runs
        RunCounts counts;
        std::promise<void> gate;
        Thread source(new GatedRunnable(gate.get_future().share(), counts), true);
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
        Thread source(new GatedRunnable(gate.get_future().share(), counts), true);
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
    std::atomic<int> destroyed{0};
    Thread target(new CountedRunnable([] {}, destroyed), true);
    target = Thread(new FunctionRunnable([] {}), true);
    EXPECT_EQ(destroyed, 1);  // the replaced runnable went at once
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
