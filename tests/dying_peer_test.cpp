// Peers across a real process boundary: answering while signals without
// SA_RESTART interrupt both sides, killed mid-conversation, or alive but out
// of descriptor numbers. The owner hears of a hang-up once through the
// reactor's listener, the loop then blocks again, and nothing is left open.
// (A peer gone between the two records of a message is in the stress suite.)
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <ipc/DefaultReactor.h>
#include <ipc/EventHandler.h>
#include <ipc/Message.h>
#include <ipc/MessageHandler.h>
#include <ipc/SocketEventHandler.h>
#include <ipc/UnixDomainSocket.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/Descriptors.h"
#include "support/EchoPeer.h"
#include "support/EventFdHandler.h"
#include "support/FunctionRunnable.h"
#include "support/LogCapture.h"
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
        Message request;
        Message::Payload payload;
        payload.data = {static_cast<uint8_t>(id), 'a', 'b', 'c'};
        payload.fds = {file.get()};
        request.setPayload(payload);
        request.setHeader(id, 1, 0, 4, 1);
        EXPECT_EQ(socket->sendMessage(request), 0) << "message " << id;
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

// Lowers this process's open-file limit so that exactly `free` descriptor
// numbers are left for new descriptors; returns the limit before.
rlimit leaveFreeDescriptors(size_t free) {
    const std::set<int> open = openDescriptors();
    rlimit before{};
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    rlim_t limit = 0;
    for (size_t seen = 0;; ++limit) {
        if (open.count(static_cast<int>(limit)) == 0 && seen++ == free) {
            break;
        }
    }
    rlimit lowered = before;
    lowered.rlim_cur = limit;
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &lowered), 0);
    return before;
}

TEST_F(DyingPeerTest, ReceiverAtItsOpenFileLimit_GetsNoneAsMinus61OrSomeInTheFirstSlots) {
    SocketPair pair = UnixDomainSocket::createPairedSocket(65536, 65536, false);
    ASSERT_GE(pair.first.get(), 0);
    int report[2];
    ASSERT_EQ(pipe2(report, O_CLOEXEC), 0);
    FileDescriptor reportRead(report[0], 0);
    FileDescriptor reportWrite(report[1], 0);

    // The receiver: a child, so that the lowered limit stays there. It
    // reports what it saw as one line of text.
    const pid_t child = forkPeer([&] {
        pair.second = FileDescriptor();
        reportRead = FileDescriptor();
        FileDescriptor devNull(open("/dev/null", O_RDONLY | O_CLOEXEC), 0);
        if (dup2(devNull.get(), 0) != 0) {
            return 1;
        }
        devNull = FileDescriptor();
        UnixDomainSocket socket;
        socket.bind(std::move(pair.first));
        const auto slots = [](const Message& message) {
            std::string text;
            for (int fd : message.payload().fds) {
                text += (fd < 0 ? std::to_string(fd) : contentsOf(fd)) + ",";
            }
            return text;
        };
        const auto receiveWithFree = [&socket](size_t free, Message* message) {
            const rlimit saved = leaveFreeDescriptors(free);
            const int result = socket.recv(message);
            setrlimit(RLIMIT_NOFILE, &saved);
            return std::to_string(result);
        };

        // The first message arrives whole. Receiving it also lets the
        // undefined-behaviour checker see the types involved while it can
        // still open the descriptor it needs for that.
        Message whole;
        Message none;
        Message some;
        std::string seen = "whole:" + std::to_string(socket.recv(&whole));
        seen += " slots:" + slots(whole);
        MessageHandler().handleMessage(whole);
        seen += " none:" + receiveWithFree(0, &none);
        seen += " some:" + receiveWithFree(1, &some);
        const Message::Payload payload = some.payload();
        seen += " data:" + std::string(payload.data.begin(), payload.data.end()) +
                " slots:" + slots(some);
        // The default handler closes every slot: the descriptor that arrived,
        // and nothing for the lost ones, which hold -1.
        MessageHandler().handleMessage(some);
        seen += isOpen(0) ? " stdin:open" : " stdin:closed";
        seen += " lines:" + std::to_string(capture.count(
                                    "The number of received fds(1) is less than expected(3)"));
        seen += "\n";
        const ssize_t written = write(reportWrite.get(), seen.data(), seen.size());
        return written == static_cast<ssize_t>(seen.size()) ? 0 : 3;
    });
    pair.first = FileDescriptor();
    reportWrite = FileDescriptor();

    UnixDomainSocket sender;
    sender.bind(std::move(pair.second));
    const FileDescriptor files[] = {memoryFile("first"), memoryFile("second"), memoryFile("third")};
    Message::Payload payload;
    payload.data = {'a', 'b', 'c'};
    payload.fds = {files[0].get(), files[1].get(), files[2].get()};
    Message request;
    request.setHeader(1, 1, 0, 0, 0);
    request.setPayload(payload);
    for (int message = 0; message < 3; ++message) {
        ASSERT_EQ(sender.send(request), 0);
    }
    EXPECT_EQ(waitPeer(child), 0);
    char text[256] = {};
    ASSERT_GT(read(reportRead.get(), text, sizeof(text) - 1), 0);
    EXPECT_STREQ(text,
                 "whole:0 slots:first,second,third, none:-61 some:0 data:abc slots:first,-1,-1, "
                 "stdin:open lines:1\n");
}

}  // namespace
