// Thread and ThreadData: the main-thread rules, per-thread records and loops,
// join on destruction, the deliberate move semantics, and the exception when
// no thread can be created.
#include <gtest/gtest.h>
#include <ipc/Message.h>
#include <ipc/MessageHandler.h>
#include <ipc/MessageLoop.h>
#include <ipc/MessageQueue.h>
#include <ipc/utils/Runnable.h>
#include <ipc/utils/Thread.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <fstream>
#include <functional>
#include <future>
#include <mutex>
#include <set>
#include <string>
#include <system_error>
#include <thread>

#include "support/FunctionRunnable.h"
#include "support/LogCapture.h"
#include "support/Waiting.h"

namespace {

using namespace Kestrel::ipc;
using namespace Kestrel::ipc::utils;
using namespace velacam::test;
using namespace std::chrono_literals;

constexpr auto kLimit = 20s;

class ThreadTest : public ::testing::Test {
  protected:
    LogCapture mCapture;  // before any thread starts
};

TEST_F(ThreadTest, MainThreadHasTheStaticThreadObjectAndNoLoop) {
    Thread* main = Thread::myThread();
    ASSERT_NE(main, nullptr);
    EXPECT_EQ(Thread::myThread(), main);
    EXPECT_EQ(ThreadData::myData().thread(), main);
    EXPECT_EQ(ThreadData::myData().tid(), getpid());
    EXPECT_EQ(Thread().id(), getpid());

    EXPECT_EQ(Thread::myMessageLoop(), nullptr);
    ASSERT_EQ(mCapture.count("only non-main thread can reach here."), 1u);
    EXPECT_EQ(mCapture.lines().back().level, 2u);
    EXPECT_EQ(mCapture.lines().back().tag, "Thread");
}

// Records which thread handled each message.
class RecordingHandler : public MessageHandler {
  public:
    using MessageHandler::handleMessage;
    void handleMessage(std::unique_ptr<Message> message) override {
        std::lock_guard<std::mutex> lock(mLock);
        mHandled.emplace(message->id(), gettid());
    }
    std::set<std::pair<uint32_t, int>> handled() const {
        std::lock_guard<std::mutex> lock(mLock);
        return mHandled;
    }

  private:
    mutable std::mutex mLock;
    std::set<std::pair<uint32_t, int>> mHandled;  // guarded by mLock
};

// What a started thread saw of itself.
struct Seen {
    Thread* thread;
    int recordTid;
    int kernelTid;
    int idThroughObject;
    MessageLoop* loop;
    bool sameLoopAgain;
};

TEST_F(ThreadTest, EachStartedThreadHasItsOwnRecordAndLoopUntilItEnds) {
    Watchdog watchdog("per-thread loops", 60s);
    std::promise<Seen> dispatcherSeen;
    std::promise<Seen> holderSeen;
    std::promise<void> leave;
    std::shared_future<void> left = leave.get_future().share();
    Thread dispatcher;
    Thread holder;
    auto body = [](Thread& self, std::promise<Seen>& seen, std::function<void(MessageLoop*)> then) {
        return new FunctionRunnable([&self, &seen, then] {
            MessageLoop* loop = Thread::myMessageLoop();
            seen.set_value({Thread::myThread(), ThreadData::myData().tid(), gettid(), self.id(),
                            loop, Thread::myMessageLoop() == loop});
            then(loop);
        });
    };
    dispatcher = Thread(
            body(dispatcher, dispatcherSeen, [](MessageLoop* loop) { loop->dispatchMessages(); }),
            true);
    holder =
            Thread(body(holder, holderSeen, [left](MessageLoop*) { left.wait_for(kLimit); }), true);
    dispatcher.start();
    holder.start();
    auto dispatcherFuture = dispatcherSeen.get_future();
    auto holderFuture = holderSeen.get_future();
    ASSERT_EQ(dispatcherFuture.wait_for(kLimit), std::future_status::ready);
    ASSERT_EQ(holderFuture.wait_for(kLimit), std::future_status::ready);
    const Seen a = dispatcherFuture.get();
    const Seen b = holderFuture.get();
    EXPECT_EQ(a.thread, &dispatcher);
    EXPECT_EQ(b.thread, &holder);
    EXPECT_EQ(a.recordTid, a.kernelTid);
    EXPECT_NE(a.kernelTid, getpid());
    EXPECT_EQ(a.idThroughObject, a.kernelTid);  // id() names the caller, whatever the object
    EXPECT_EQ(dispatcher.id(), getpid());
    ASSERT_NE(a.loop, nullptr);
    EXPECT_TRUE(a.sameLoopAgain);
    EXPECT_NE(a.loop, b.loop);
    EXPECT_EQ(mCapture.count("only non-main thread can reach here."), 0u);
    EXPECT_EQ(mCapture.count("[run] thread " + std::to_string(a.kernelTid)), 1u);

    // Each loop is its own: the dispatcher handles what is queued on its loop,
    // and what waits in the holder's loop goes with that thread's record.
    auto handler = std::make_shared<RecordingHandler>();
    for (uint32_t id : {1u, 2u, 3u}) {
        auto message = std::make_unique<Message>(handler);
        message->setHeader(id, 0, 0, 0, 0);
        (id == 2 ? b.loop : a.loop)->messageQueue().enqueueMessage(std::move(message), 0ms);
    }
    ASSERT_TRUE(waitUntil([&] { return handler->handled().size() == 2; }, kLimit));
    a.loop->requestExit();
    dispatcher.wait();
    EXPECT_EQ(handler.use_count(), 2);  // message 2 still queued
    leave.set_value();
    holder.wait();
    EXPECT_EQ(handler.use_count(), 1);
    EXPECT_EQ(handler->handled(),
              (std::set<std::pair<uint32_t, int>>{{1, a.kernelTid}, {3, a.kernelTid}}));
}

TEST_F(ThreadTest, DestructionJoinsBeforeDestroyingTheOwnedRunnableOnly) {
    std::atomic<int> destroyed{0};
    std::atomic<bool> ranBeforeDestruction{false};
    std::promise<void> gate;
    std::shared_future<void> opened = gate.get_future().share();
    // The gate opens a little after the destructor has begun, so that a
    // destructor that did not join would destroy the runnable first.
    std::thread opener([&gate] {
        std::this_thread::sleep_for(20ms);
        gate.set_value();
    });
    {
        Thread thread(new FunctionRunnable(
                              [&, opened] {
                                  opened.wait_for(kLimit);
                                  ranBeforeDestruction = destroyed == 0;
                              },
                              &destroyed),
                      true);
        thread.start();
    }
    opener.join();
    EXPECT_TRUE(ranBeforeDestruction);
    EXPECT_EQ(destroyed, 1);

    {
        FunctionRunnable notOwned([] {}, &destroyed);
        {
            Thread thread(&notOwned, false);
            thread.start();
        }
        EXPECT_EQ(destroyed, 1);
    }
    EXPECT_EQ(destroyed, 2);
}

TEST_F(ThreadTest, MoveTakesTheRunnableButNotTheRunningThread) {
    std::atomic<int> runs{0};
    std::atomic<int> destroyed{0};
    std::promise<void> entered;
    std::promise<void> gate;
    std::shared_future<void> opened = gate.get_future().share();
    {
        Thread original(new FunctionRunnable(
                                [&] {
                                    if (runs++ == 0) {
                                        entered.set_value();
                                    }
                                    opened.wait_for(kLimit);
                                },
                                &destroyed),
                        true);
        original.start();
        // Moved once the first thread is inside the runnable: run() reads the
        // runnable pointer that the move clears.
        ASSERT_EQ(entered.get_future().wait_for(kLimit), std::future_status::ready);
        Thread moved(std::move(original));
        moved.start();  // a second thread on the same runnable; `original` keeps its own
        gate.set_value();
        moved.wait();
        original.wait();
        EXPECT_EQ(runs, 2);
        Thread assigned;
        assigned = std::move(moved);
        EXPECT_EQ(destroyed, 0);
    }
    EXPECT_EQ(destroyed, 1);  // owned by exactly one object at a time

    Thread target(new FunctionRunnable([] {}, &destroyed), true);
    target = Thread(new FunctionRunnable([] {}), true);
    EXPECT_EQ(destroyed, 2);  // the replaced runnable went
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define VELACAM_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define VELACAM_SANITIZED 1
#endif
#endif

#ifndef VELACAM_SANITIZED
// Limits the address space to what is used now plus 2 MiB, too little for a
// new thread's stack. True when the limit is enforced (an emulator may accept
// and ignore it): a 64 MiB mapping then fails.
bool limitAddressSpace() {
    std::ifstream statm("/proc/self/statm");
    unsigned long pages = 0;
    statm >> pages;
    const rlim_t limit = pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + (2u << 20);
    const rlimit value{limit, limit};
    if (setrlimit(RLIMIT_AS, &value) != 0) {
        return false;
    }
    void* big =
            mmap(nullptr, 64u << 20, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return big == MAP_FAILED;
}

bool addressSpaceLimitIsEnforced() {
    const pid_t pid = fork();
    if (pid == 0) {
        _exit(limitAddressSpace() ? 0 : 1);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}
#endif

using ThreadDeathTest = ThreadTest;

TEST_F(ThreadDeathTest, StartThrowsSystemErrorWhenNoThreadCanBeCreated) {
#ifdef VELACAM_SANITIZED
    GTEST_SKIP() << "the sanitizer runtime dies on a failed allocation of its own first";
#else
    if (!addressSpaceLimitIsEnforced()) {
        GTEST_SKIP() << "the address-space limit is not enforced here (emulated run)";
    }
    EXPECT_EXIT(
            {
                limitAddressSpace();
                Thread thread(new FunctionRunnable([] {}), true);
                try {
                    thread.start();
                } catch (const std::system_error& error) {
                    const bool expected =
                            std::string(error.what()).find("thread constructor failed") !=
                                    std::string::npos &&
                            error.code().value() == EAGAIN;
                    _exit(expected ? 0 : 2);
                }
                _exit(3);
            },
            ::testing::ExitedWithCode(0), "");
#endif
}

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
