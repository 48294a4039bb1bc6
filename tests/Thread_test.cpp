// Thread and ThreadData: the main-thread rules, per-thread records and loops,
// join on destruction and the deliberate move semantics.
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

// Calls `body`, and counts its own destruction in `destroyed`, so that a case
// sees who destroyed it and when.
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

// Marks each message it handles in a bit mask, checking that it runs on `tid`.
class MarkingHandler : public MessageHandler {
  public:
    explicit MarkingHandler(int tid) : mTid(tid) {}
    using MessageHandler::handleMessage;
    void handleMessage(std::unique_ptr<Message> message) override {
        EXPECT_EQ(gettid(), mTid);
        handled |= 1u << message->id();
    }

    std::atomic<uint32_t> handled{0};

  private:
    const int mTid;
};

TEST_F(ThreadTest, MainHasTheStaticThreadAndNoLoop_EachStartedThreadItsOwnRecordAndLoop) {
    Thread* main = Thread::myThread();
    ASSERT_NE(main, nullptr);
    EXPECT_EQ(Thread::myThread(), main);
    EXPECT_EQ(ThreadData::myData().thread(), main);
    EXPECT_EQ(ThreadData::myData().tid(), getpid());
    EXPECT_EQ(Thread().id(), getpid());
    EXPECT_EQ(Thread::myMessageLoop(), nullptr);
    EXPECT_EQ(mCapture.levelOf("only non-main thread can reach here."), 2u);

    // Thread 0 dispatches its loop; both keep their records until `leave`.
    // Each tells its loop and kernel thread id.
    Watchdog watchdog("per-thread loops", 60s);
    std::array<std::promise<std::pair<MessageLoop*, int>>, 2> seen;
    std::array<std::future<std::pair<MessageLoop*, int>>, 2> futures = {seen[0].get_future(),
                                                                        seen[1].get_future()};
    std::promise<void> leave;
    std::shared_future<void> left = leave.get_future().share();
    std::array<Thread, 2> threads;
    for (size_t i = 0; i < threads.size(); ++i) {
        threads[i] = Thread(new FunctionRunnable([&, i, left] {
                                MessageLoop* loop = Thread::myMessageLoop();
                                EXPECT_EQ(Thread::myThread(), &threads[i]);
                                EXPECT_EQ(ThreadData::myData().tid(), gettid());
                                EXPECT_NE(gettid(), getpid());
                                EXPECT_EQ(threads[i].id(), gettid());  // the caller's, always
                                EXPECT_NE(loop, nullptr);
                                EXPECT_EQ(Thread::myMessageLoop(), loop);
                                seen[i].set_value({loop, gettid()});
                                if (i == 0 && loop != nullptr) {
                                    loop->dispatchMessages();
                                }
                                left.wait_for(kLimit);  // each record lives until then
                            }),
                            true);
        threads[i].start();
    }
    ASSERT_EQ(futures[0].wait_for(kLimit), std::future_status::ready);
    ASSERT_EQ(futures[1].wait_for(kLimit), std::future_status::ready);
    const auto [loop0, tid0] = futures[0].get();
    MessageLoop* const loop1 = futures[1].get().first;
    ASSERT_NE(loop0, nullptr);
    ASSERT_NE(loop1, nullptr);
    EXPECT_NE(loop0, loop1);
    EXPECT_EQ(threads[0].id(), getpid());
    EXPECT_EQ(mCapture.count("only non-main thread can reach here."), 1u);

    // Thread 0 handles what is queued on its loop; what waits in thread 1's
    // loop goes with that thread's record.
    auto handler = std::make_shared<MarkingHandler>(tid0);
    for (uint32_t id : {1u, 2u, 3u}) {
        (id == 2 ? loop1 : loop0)
                ->messageQueue()
                .enqueueMessage(makeMessage(id, {}, {}, handler), 0ms);
    }
    constexpr uint32_t kOneAndThree = (1u << 1) | (1u << 3);
    ASSERT_TRUE(waitUntil([&] { return handler->handled == kOneAndThree; }, kLimit));
    loop0->requestExit();
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
    // The gate opens once this thread sleeps in the destructor, so that a
    // destructor that did not join would destroy the runnable first.
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

TEST_F(ThreadTest, MoveOfAWaitedThreadTakesTheRunnableOnly) {
    std::atomic<int> runs{0};
    std::atomic<int> destroyed{0};
    {
        Thread original(new CountedRunnable([&] { ++runs; }, destroyed), true);
        original.start();
        original.wait();  // only a thread that was waited for may be moved
        Thread moved(std::move(original));
        moved.start();  // the same runnable again, on a thread of its own
        moved.wait();
        EXPECT_EQ(runs, 2);
        Thread assigned;
        assigned = std::move(moved);
        EXPECT_EQ(destroyed, 0);
    }
    EXPECT_EQ(destroyed, 1);  // owned by exactly one object at a time

    Thread target(new CountedRunnable([] {}, destroyed), true);
    target = Thread(new FunctionRunnable([] {}), true);
    EXPECT_EQ(destroyed, 2);  // the replaced runnable went
}

using ThreadDeathTest = ThreadTest;

TEST_F(ThreadDeathTest, MainAndNonMainRulesEndTheProcess) {
    EXPECT_DEATH(
            {
                std::thread bare([] { ThreadData::myData(); });
                bare.join();
            },
            "Thread: only the main thread can reach here\\. "
            "\\(myData\\)\\{#[0-9]+:ipc/utils/Thread\\}");
    EXPECT_DEATH(
            {
                std::thread bare([] { Thread::myThread(); });
                bare.join();
            },
            "Thread: only the main thread can reach here\\.");
    EXPECT_DEATH(Thread().preTask(),
                 "Thread: only non-main thread can reach here\\. "
                 "\\(preTask\\)\\{#[0-9]+:ipc/utils/Thread\\}");
    EXPECT_DEATH(Thread().postTask(),
                 "Thread: only non-main threa can reach here\\. "
                 "\\(postTask\\)\\{#[0-9]+:ipc/utils/Thread\\}");
}

}  // namespace
