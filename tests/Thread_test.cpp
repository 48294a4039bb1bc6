// Thread and ThreadData: the main-thread rules, per-thread records and loops,
// join on destruction, the deliberate move semantics, thread names, and the
// exception when no thread can be created.
#include <gtest/gtest.h>
#include <ipc/Message.h>
#include <ipc/MessageHandler.h>
#include <ipc/MessageLoop.h>
#include <ipc/utils/Log.h>
#include <ipc/utils/Runnable.h>
#include <ipc/utils/Thread.h>
#include <pthread.h>
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
#include <vector>

#include "support/LogCapture.h"
#include "support/Waiting.h"

namespace {

using Kestrel::ipc::Message;
using Kestrel::ipc::MessageHandler;
using Kestrel::ipc::MessageLoop;
using Kestrel::ipc::utils::LogSetting;
using Kestrel::ipc::utils::Runnable;
using Kestrel::ipc::utils::Thread;
using Kestrel::ipc::utils::ThreadData;
using velacam::test::LogCapture;
using namespace std::chrono_literals;

constexpr auto kLimit = 20s;

// Runs a function; counts its own destruction when given a counter.
class FunctionRunnable : public Runnable {
  public:
    explicit FunctionRunnable(std::function<void()> body, std::atomic<int>* destroyed = nullptr)
        : mBody(std::move(body)), mDestroyed(destroyed) {}
    ~FunctionRunnable() override {
        if (mDestroyed != nullptr) {
            ++*mDestroyed;
        }
    }
    void run() override { mBody(); }

  private:
    std::function<void()> mBody;
    std::atomic<int>* mDestroyed;
};

template <typename T>
T await(std::future<T>& future) {
    if (future.wait_for(kLimit) != std::future_status::ready) {
        ADD_FAILURE() << "timed out";
        std::abort();
    }
    return future.get();
}

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
    const auto line = mCapture.lines().back();
    EXPECT_EQ(line.level, 2u);
    EXPECT_EQ(line.tag, "Thread");
}

TEST_F(ThreadTest, StartedThreadSeesItsOwnThreadRecordAndOneLoop) {
    Thread* seenThread = nullptr;
    int recordTid = 0;
    int kernelTid = 0;
    int idThroughObject = 0;
    MessageLoop* first = nullptr;
    MessageLoop* second = nullptr;
    Thread thread;
    thread = Thread(new FunctionRunnable([&] {
                        seenThread = Thread::myThread();
                        recordTid = ThreadData::myData().tid();
                        kernelTid = gettid();
                        idThroughObject = thread.id();
                        first = Thread::myMessageLoop();
                        second = Thread::myMessageLoop();
                    }),
                    true);
    thread.start();
    thread.wait();

    EXPECT_EQ(seenThread, &thread);
    EXPECT_NE(seenThread, Thread::myThread());
    EXPECT_EQ(recordTid, kernelTid);
    EXPECT_NE(kernelTid, getpid());
    // id() names the caller, whichever Thread it is called on.
    EXPECT_EQ(idThroughObject, kernelTid);
    EXPECT_EQ(thread.id(), getpid());
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first, second);
    EXPECT_EQ(mCapture.count("only non-main thread can reach here."), 0u);
    if (LogSetting::logLevel() >= 1) {
        EXPECT_EQ(mCapture.count("[run] thread " + std::to_string(kernelTid)), 1u);
    }
}

// Records which thread handled each message.
class RecordingHandler : public MessageHandler {
  public:
    using MessageHandler::handleMessage;
    void handleMessage(std::unique_ptr<Message> message) override {
        std::lock_guard<std::mutex> lock(mLock);
        mHandled.emplace_back(message->id(), gettid());
    }
    std::vector<std::pair<uint32_t, int>> handled() const {
        std::lock_guard<std::mutex> lock(mLock);
        return mHandled;
    }

  private:
    mutable std::mutex mLock;
    std::vector<std::pair<uint32_t, int>> mHandled;  // guarded by mLock
};

std::unique_ptr<Message> messageFor(const std::shared_ptr<MessageHandler>& handler, uint32_t id) {
    auto message = std::make_unique<Message>(handler);
    message->setHeader(id, 0, 0, 0, 0);
    return message;
}

TEST_F(ThreadTest, EachThreadDispatchesItsOwnLoop) {
    struct Started {
        MessageLoop* loop;
        int tid;
    };
    std::promise<Started> firstStarted;
    std::promise<Started> secondStarted;
    auto loopBody = [](std::promise<Started>& started) {
        return new FunctionRunnable([&started] {
            MessageLoop* loop = Thread::myMessageLoop();
            started.set_value({loop, gettid()});
            loop->dispatchMessages();
        });
    };
    Thread first(loopBody(firstStarted), true);
    Thread second(loopBody(secondStarted), true);
    first.start();
    second.start();
    auto firstFuture = firstStarted.get_future();
    auto secondFuture = secondStarted.get_future();
    const Started a = await(firstFuture);
    const Started b = await(secondFuture);
    ASSERT_NE(a.loop, b.loop);

    auto handler = std::make_shared<RecordingHandler>();
    a.loop->messageQueue().enqueueMessage(messageFor(handler, 1), 0ms);
    b.loop->messageQueue().enqueueMessage(messageFor(handler, 2), 0ms);
    a.loop->messageQueue().enqueueMessage(messageFor(handler, 3), 0ms);
    ASSERT_TRUE(velacam::test::waitUntil([&] { return handler->handled().size() == 3; }, kLimit));
    a.loop->requestExit();
    b.loop->requestExit();
    first.wait();
    second.wait();

    std::set<std::pair<uint32_t, int>> handled;
    for (const auto& entry : handler->handled()) {
        handled.insert(entry);
    }
    EXPECT_EQ(handled, (std::set<std::pair<uint32_t, int>>{{1, a.tid}, {2, b.tid}, {3, a.tid}}));
}

TEST_F(ThreadTest, ThreadExitDestroysTheRecordWithItsLoopAndQueuedMessages) {
    std::promise<MessageLoop*> started;
    std::promise<void> leave;
    Thread thread(new FunctionRunnable([&] {
                      started.set_value(Thread::myMessageLoop());
                      auto go = leave.get_future();
                      go.wait_for(kLimit);
                  }),
                  true);
    thread.start();
    auto startedFuture = started.get_future();
    MessageLoop* loop = await(startedFuture);

    // A message left in the loop keeps its handler referenced until the loop
    // goes away with the thread's record.
    auto handler = std::make_shared<RecordingHandler>();
    loop->messageQueue().enqueueMessage(messageFor(handler, 9), 0ms);
    EXPECT_EQ(handler.use_count(), 2);
    leave.set_value();
    thread.wait();
    EXPECT_EQ(handler.use_count(), 1);
    EXPECT_TRUE(handler->handled().empty());
}

// Appends "ran" when its run() ends and "destroyed" when it is destroyed.
class OrderRecordingRunnable : public Runnable {
  public:
    OrderRecordingRunnable(std::shared_future<void> gate, std::mutex& lock,
                           std::vector<std::string>& events)
        : mGate(std::move(gate)), mLock(lock), mEvents(events) {}
    ~OrderRecordingRunnable() override {
        std::lock_guard<std::mutex> guard(mLock);
        mEvents.push_back("destroyed");
    }
    void run() override {
        mGate.wait_for(kLimit);
        std::lock_guard<std::mutex> guard(mLock);
        mEvents.push_back("ran");
    }

  private:
    std::shared_future<void> mGate;
    std::mutex& mLock;
    std::vector<std::string>& mEvents;  // guarded by mLock
};

TEST_F(ThreadTest, DestructionJoinsBeforeDestroyingTheOwnedRunnable) {
    std::mutex lock;
    std::vector<std::string> events;  // guarded by lock
    std::promise<void> gate;
    // The gate opens a little after the destructor has begun, so that a
    // destructor that did not join would destroy the runnable first.
    std::thread opener([&gate] {
        std::this_thread::sleep_for(20ms);
        gate.set_value();
    });
    {
        Thread thread(new OrderRecordingRunnable(gate.get_future().share(), lock, events), true);
        thread.start();
    }
    opener.join();
    EXPECT_EQ(events, (std::vector<std::string>{"ran", "destroyed"}));

    std::atomic<int> notOwnedDestroyed{0};
    {
        FunctionRunnable notOwned([] {}, &notOwnedDestroyed);
        {
            Thread thread(&notOwned, false);
            thread.start();
        }
        EXPECT_EQ(notOwnedDestroyed, 0);
    }
    EXPECT_EQ(notOwnedDestroyed, 1);
}

TEST_F(ThreadTest, MoveTakesTheRunnableButNotTheRunningThread) {
    std::mutex lock;
    std::multiset<Thread*> runners;  // guarded by lock
    std::atomic<int> destroyed{0};
    std::promise<void> gate;
    std::shared_future<void> opened = gate.get_future().share();
    std::promise<void> entered;
    std::atomic<bool> firstRun{true};
    {
        Thread original(new FunctionRunnable(
                                [&] {
                                    if (firstRun.exchange(false)) {
                                        entered.set_value();
                                    }
                                    opened.wait_for(kLimit);
                                    std::lock_guard<std::mutex> guard(lock);
                                    runners.insert(Thread::myThread());
                                },
                                &destroyed),
                        true);
        original.start();
        // Moved only once the first thread is inside the runnable: run() reads
        // the runnable pointer that the move clears.
        ASSERT_EQ(entered.get_future().wait_for(kLimit), std::future_status::ready);
        Thread moved(std::move(original));
        moved.start();  // a second thread on the same runnable
        gate.set_value();
        moved.wait();
        original.wait();
        EXPECT_EQ(runners, (std::multiset<Thread*>{&original, &moved}));

        Thread assigned;
        assigned = std::move(moved);
        EXPECT_EQ(destroyed, 0);
    }
    EXPECT_EQ(destroyed, 1);  // owned by exactly one object at a time

    std::atomic<int> replaced{0};
    Thread target(new FunctionRunnable([] {}, &replaced), true);
    target = Thread(new FunctionRunnable([] {}), true);
    EXPECT_EQ(replaced, 1);
}

TEST_F(ThreadTest, SetNameNamesTheCallingThreadUpToFifteenCharacters) {
    std::string named;
    std::string afterLongName;
    Thread thread(new FunctionRunnable([&] {
                      char name[32] = {};
                      Thread::setName("velacam-worker");
                      pthread_getname_np(pthread_self(), name, sizeof(name));
                      named = name;
                      Thread::setName("a-name-of-sixteen");
                      pthread_getname_np(pthread_self(), name, sizeof(name));
                      afterLongName = name;
                  }),
                  true);
    thread.start();
    thread.wait();
    EXPECT_EQ(named, "velacam-worker");
    EXPECT_EQ(afterLongName, "velacam-worker");
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define VELACAM_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define VELACAM_SANITIZED 1
#endif
#endif

#ifndef VELACAM_SANITIZED
// Limits the address space of the calling process to what it uses now plus
// 2 MiB, too little for a new thread's stack.
bool limitAddressSpace() {
    std::ifstream statm("/proc/self/statm");
    unsigned long pages = 0;
    statm >> pages;
    const rlim_t limit = pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + (2u << 20);
    const rlimit value{limit, limit};
    return setrlimit(RLIMIT_AS, &value) == 0;
}

// True when the address-space limit is enforced (an emulator may accept and
// ignore it).
bool addressSpaceLimitIsEnforced() {
    const pid_t pid = fork();
    if (pid == 0) {
        const bool limited = limitAddressSpace();
        void* big = mmap(nullptr, 64u << 20, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS,
                         -1, 0);
        _exit(limited && big == MAP_FAILED ? 0 : 1);
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

TEST_F(ThreadDeathTest, RecordOfAThreadNotStartedByThreadEndsTheProcess) {
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
}

TEST_F(ThreadDeathTest, PerThreadSetUpOnTheMainThreadEndsTheProcess) {
    EXPECT_DEATH(Thread().preTask(),
                 "Thread: only non-main thread can reach here\\. "
                 "\\(preTask\\)\\{#[0-9]+:ipc/utils/Thread\\}");
}

TEST_F(ThreadDeathTest, PerThreadTearDownOnTheMainThreadEndsTheProcess) {
    EXPECT_DEATH(Thread().postTask(),
                 "Thread: only non-main threa can reach here\\. "
                 "\\(postTask\\)\\{#[0-9]+:ipc/utils/Thread\\}");
}

}  // namespace
