// A peer across a real process boundary, answering while signals without
// SA_RESTART interrupt both sides, then killed mid-conversation: the owner
// hears of the hang-up once through the reactor's listener, the loop then
// blocks again, and nothing is left open.
#include <errno.h>
#include <gtest/gtest.h>
#include <ipc/DefaultReactor.h>
#include <ipc/EventHandler.h>
#include <ipc/Message.h>
#include <ipc/SocketEventHandler.h>
#include <ipc/UnixDomainSocket.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "support/Descriptors.h"
#include "support/EchoPeer.h"
#include "support/EventFdHandler.h"
#include "support/FunctionRunnable.h"
#include "support/LogCapture.h"
#include "support/Messages.h"
#include "support/RawPeer.h"
#include "support/ReactorThread.h"
#include "support/Waiting.h"

namespace {

using namespace Kestrel::ipc;
using namespace velacam::test;

class DyingPeerTest : public ::testing::Test {
  protected:
    ScopedLeakCheck leaks;  // when the whole fixture is gone
    LogCapture capture;
    Watchdog watchdog{"dying peer test", 120s};
    DefaultReactor reactor;
};

std::atomic<int> gSignalsHandled{0};

// A conversation with an echo peer, each request carrying a descriptor, first
// under a storm of signals aimed at the loop's thread and at the sender: no
// call fails. Then the peer is killed mid-conversation: one notice, and the
// loop blocks again.
TEST_F(DyingPeerTest, PeerAnsweringUnderSignalsThenKilled_IsNoticedOnceAndTheLoopBlocksAgain) {
    constexpr uint32_t kMessages = 1000;
    SocketPair pair = UnixDomainSocket::createPairedSocket(65536, 65536, false);
    ASSERT_GE(pair.first.get(), 0);
    const pid_t child = forkEchoPeer(pair);

    // A condition variable, not waitUntil(): the signals would stretch its
    // sleeps without end.
    std::mutex lock;
    std::condition_variable replied;
    uint32_t lastReply = 0;  // guarded by lock
    int badReplies = 0;      // guarded by lock
    std::atomic<int> notices{0};
    std::atomic<short> noticed{0};
    auto socket = std::make_shared<SocketEventHandler>(std::move(pair.first), EventType::READ);
    const int socketFd = socket->fd();
    socket->setRunnable(std::make_shared<FunctionRunnable>([&, end = socket.get()] {
        Message reply;
        const int result = end->receiveMessage(&reply);
        const Message::Payload payload = reply.payload();
        std::lock_guard<std::mutex> guard(lock);
        // The echo answers in order, with the request's data.
        const bool intact = result == 0 && reply.isReply() && reply.id() == lastReply + 1 &&
                            payload.data.size() == 4 &&
                            payload.data[0] == static_cast<uint8_t>(reply.id());
        badReplies += intact ? 0 : 1;
        lastReply = reply.id();
        replied.notify_all();
    }));
    // Stays registered, so that the loop has something to block on once the
    // socket is gone.
    auto doorbell = std::make_shared<EventFdHandler>();
    reactor.setHangUpListener([&](int fd, short revents, std::shared_ptr<EventHandler>) {
        EXPECT_TRUE(reactor.removeEventHandlerByFd(fd));
        noticed = revents;
        ++notices;
    });
    ASSERT_TRUE(reactor.registerEventHandler(socket));
    ASSERT_TRUE(reactor.registerEventHandler(doorbell));
    ReactorThread loop(reactor);

    const FileDescriptor file = memoryFile("carried");
    const auto send = [&](uint32_t id) {
        const auto request =
                makeMessage(id, {static_cast<uint8_t>(id), 'a', 'b', 'c'}, {file.get()});
        EXPECT_EQ(socket->sendMessage(*request), 0) << "message " << id;
    };
    {
        // A counting handler WITHOUT SA_RESTART: every blocking call it
        // interrupts fails with EINTR.
        struct sigaction action {};
        struct sigaction previous {};
        action.sa_handler = [](int) { gSignalsHandled.fetch_add(1, std::memory_order_relaxed); };
        sigemptyset(&action.sa_mask);
        ASSERT_EQ(sigaction(SIGUSR1, &action, &previous), 0);
        const pthread_t targets[] = {loop.thread().native_handle(), pthread_self()};
        std::atomic<bool> stop{false};
        std::atomic<int> signalsSent{0};
        std::thread storm([&] {
            while (!stop.load()) {
                for (const pthread_t target : targets) {
                    signalsSent += pthread_kill(target, SIGUSR1) == 0 ? 1 : 0;
                }
            }
        });
        for (uint32_t id = 1; id <= kMessages; ++id) {
            send(id);
            std::unique_lock<std::mutex> guard(lock);
            if (!replied.wait_for(guard, 10s, [&] { return lastReply == id; })) {
                ADD_FAILURE() << "no reply " << id;
                break;
            }
        }
        stop = true;
        storm.join();
        // A signal still pending on the loop's thread would meet the default
        // action and end the process: ignoring the signal discards it first.
        signal(SIGUSR1, SIG_IGN);
        sigaction(SIGUSR1, &previous, nullptr);
        EXPECT_GT(signalsSent.load(), 0);
        EXPECT_GT(gSignalsHandled.load(), 0);
    }
    EXPECT_EQ(badReplies, 0);
    EXPECT_EQ(capture.countContaining("failed"), 0u);
    EXPECT_EQ(capture.count("poll timed out"), 0u);

    send(kMessages + 1);  // which may or may not be answered
    ASSERT_EQ(kill(child, SIGKILL), 0);
    EXPECT_EQ(waitPeer(child), -1);  // killed, not exited

    ASSERT_TRUE(waitUntil([&] { return notices.load() > 0; }));
    // The loop blocks again: asleep between rings, each ring one call.
    for (int ring = 1; ring <= 3; ++ring) {
        doorbell->ring();
        ASSERT_TRUE(waitUntil([&] { return doorbell->calls.load() == ring; }));
        ASSERT_TRUE(waitUntilAsleep(doorbell->thread.load()));
    }
    loop.stop();
    EXPECT_EQ(notices.load(), 1);
    EXPECT_NE(noticed.load() & POLLHUP, 0);
    char failure[64];
    std::snprintf(failure, sizeof(failure), "fd(%d): output event failed: ", socketFd);
    EXPECT_EQ(capture.countContaining(failure), 1u);
    EXPECT_EQ(capture.countContaining("hand up"), 1u);
}

}  // namespace
