// The reactor against bad timing and signals: an exit request that comes
// before, together with or just after the start of loop() always ends it, and
// a storm of signals without SA_RESTART, aimed at the reactor's thread and at
// the sender while messages cross to another process, makes nothing fail.
#include <gtest/gtest.h>
#include <ipc/DefaultReactor.h>
#include <ipc/EventHandler.h>
#include <ipc/Message.h>
#include <ipc/SocketEventHandler.h>
#include <ipc/UnixDomainSocket.h>
#include <pthread.h>
#include <signal.h>
#include <sysutils/FileDescriptor.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "support/Descriptors.h"
#include "support/EchoPeer.h"
#include "support/EventFdHandler.h"
#include "support/FunctionRunnable.h"
#include "support/LogChecks.h"
#include "support/RawPeer.h"
#include "support/ReactorThread.h"
#include "support/Waiting.h"

namespace {

using namespace Kestrel::ipc;
using namespace velacam::test;

enum class ExitTiming { kBefore, kTogether, kAfterStart };

// One reactor, one loop thread, one exit request at `timing`; with or without
// a handler that keeps the loop cycling.
void runOneRound(ExitTiming timing, bool withHandler, int jitter, LogCapture& capture) {
    capture.clear();
    DefaultReactor reactor;
    auto handler = std::make_shared<EventFdHandler>(EventFdHandler::Readiness::kAlwaysReady);
    if (withHandler) {
        ASSERT_TRUE(reactor.registerEventHandler(handler));
    }
    if (timing == ExitTiming::kBefore) {
        reactor.requestExit();
    }
    std::atomic<bool> go{false};
    const auto awaitGo = [&go] {
        while (!go.load()) {
            std::this_thread::yield();
        }
    };
    std::thread loopThread([&] {
        awaitGo();
        reactor.loop(0ms);
    });
    std::thread requester([&] {
        awaitGo();
        if (timing == ExitTiming::kTogether) {
            for (int i = 0; i < jitter; ++i) {
                std::this_thread::yield();
            }
            reactor.requestExit();
        } else if (timing == ExitTiming::kAfterStart) {  // at the gate, or cycling
            EXPECT_TRUE(capture.waitFor(withHandler ? "[handlePollEvent] dispatch"
                                                    : "[loop] Block to wait for signal"));
            reactor.requestExit();
        }
    });
    go = true;
    requester.join();
    loopThread.join();
    EXPECT_EQ(capture.count("[loop] reactor exits now"), 1u);
    if (timing == ExitTiming::kBefore && !withHandler) {
        EXPECT_EQ(capture.count("[loop] (1)"), 1u);
    }
}

TEST(ReactorExitTimingTest, ExitRequestedBeforeTogetherWithOrJustAfterTheStart_AlwaysEndsTheLoop) {
    if (!debugLogged()) {
        GTEST_SKIP() << "needs the debug property";
    }
    DescriptorLeakCheck leaks;
    {
        LogCapture capture;
        Watchdog watchdog{"exit timing rounds", 120s};
        for (int round = 0; round < 100; ++round) {
            for (const ExitTiming timing :
                 {ExitTiming::kBefore, ExitTiming::kTogether, ExitTiming::kAfterStart}) {
                runOneRound(timing, round % 2 == 0, round % 40, capture);
                if (::testing::Test::HasFailure()) {
                    FAIL() << "round " << round << ", timing " << static_cast<int>(timing);
                }
            }
        }
    }
    leaks.check();
}

std::atomic<int> gSignalsHandled{0};

void countSignal(int) { gSignalsHandled.fetch_add(1, std::memory_order_relaxed); }

// Installs a counting SIGUSR1 handler WITHOUT SA_RESTART, so that every
// blocking call it interrupts fails with EINTR; restores the old one.
class InterruptingSignal {
  public:
    InterruptingSignal() {
        struct sigaction action {};
        action.sa_handler = countSignal;
        sigemptyset(&action.sa_mask);
        action.sa_flags = 0;
        EXPECT_EQ(sigaction(SIGUSR1, &action, &mPrevious), 0);
    }
    ~InterruptingSignal() { sigaction(SIGUSR1, &mPrevious, nullptr); }

  private:
    struct sigaction mPrevious {};
};

TEST(ReactorSignalTest, SignalsWithoutRestartWhileMessagesFlow_FailNothing) {
    if (!debugLogged()) {
        GTEST_SKIP() << "needs the debug property";
    }
    constexpr uint32_t kMessages = 1000;
    ScopedLeakCheck leaks;
    LogCapture capture;
    Watchdog watchdog{"messages under signals", 120s};
    InterruptingSignal interrupting;
    SocketPair pair = UnixDomainSocket::createPairedSocket(65536, 65536, false);
    ASSERT_GE(pair.first.get(), 0);
    const pid_t child = forkEchoPeer(pair);

    std::mutex lock;
    std::condition_variable arrived;
    std::vector<uint32_t> replies;  // guarded by lock
    size_t badReplies = 0;          // guarded by lock
    auto socket = std::make_shared<SocketEventHandler>(std::move(pair.first), EventType::READ);
    socket->setRunnable(std::make_shared<FunctionRunnable>([&, end = socket.get()] {
        Message reply;
        const int result = end->receiveMessage(&reply);
        const Message::Payload payload = reply.payload();
        {
            std::lock_guard<std::mutex> guard(lock);
            const bool intact = result == 0 && reply.isReply() && payload.data.size() == 4 &&
                                payload.data[0] == static_cast<uint8_t>(reply.id());
            badReplies += intact ? 0 : 1;
            replies.push_back(reply.id());
        }
        arrived.notify_all();
    }));
    DefaultReactor reactor;
    ASSERT_TRUE(reactor.registerEventHandler(socket));
    ReactorThread loop(reactor);

    const pthread_t targets[] = {loop.thread().native_handle(), pthread_self()};
    std::atomic<bool> stop{false};
    std::atomic<int> signalsSent{0};
    std::thread storm([&] {
        while (!stop.load()) {
            for (const pthread_t target : targets) {
                if (pthread_kill(target, SIGUSR1) == 0) {
                    ++signalsSent;
                }
            }
        }
    });

    const FileDescriptor file = memoryFile("carried");
    for (uint32_t id = 1; id <= kMessages; ++id) {
        Message request;
        Message::Payload payload;
        payload.data = {static_cast<uint8_t>(id), 'a', 'b', 'c'};
        payload.fds = {file.get()};
        request.setPayload(payload);
        request.setHeader(id, 1, 0, 4, 1);
        EXPECT_EQ(socket->sendMessage(request), 0) << "message " << id;
        std::unique_lock<std::mutex> guard(lock);
        if (!arrived.wait_for(guard, 10s, [&] { return replies.size() == id; })) {
            ADD_FAILURE() << "no reply " << id;
            break;
        }
    }
    stop = true;
    storm.join();
    loop.stop();
    socket.reset();  // end of stream: the echo ends by itself
    EXPECT_EQ(waitPeer(child), 0);

    EXPECT_EQ(badReplies, 0u);
    for (uint32_t i = 0; i < replies.size(); ++i) {
        ASSERT_EQ(replies[i], i + 1);
    }
    EXPECT_GT(signalsSent.load(), 0);
    EXPECT_GT(gSignalsHandled.load(), 0);
    EXPECT_EQ(capture.countContaining("failed"), 0u);
    EXPECT_EQ(capture.count("poll timed out"), 0u);
}

}  // namespace
