// A reactor serving one end of a socket pair whose peer answers requests under
// signals, is killed, or hangs up.
#include <fcntl.h>
#include <ipc/CBRegistry.h>
#include <ipc/DefaultReactor.h>
#include <ipc/SocketEventHandler.h>
#include <ipc/utils/FunctionRunnable.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <condition_variable>
#include <map>
#include <mutex>
#include <tuple>

#include "support/EventFdHandler.h"
#include "support/Messages.h"
#include "support/ReactorThread.h"
#include "support/SocketPairFixture.h"

namespace {

using namespace Kestrel::ipc;
using namespace velacam::test;

constexpr uint32_t kQuit = 1;  // requests are of type 0
constexpr uint32_t kFirstId = 100;
constexpr uint32_t kRequests = 200;

// Watches a descriptor, owned or not, that must never be dispatched.
class Watched : public EventHandler {
  public:
    explicit Watched(FileDescriptor&& fd)
        : EventHandler(fd.get(), EventType::READ), mFd(std::move(fd)) {}
    explicit Watched(int unowned) : EventHandler(unowned, EventType::READ) {}
    void handleEvent() override { ADD_FAILURE() << "dispatched"; }

  private:
    FileDescriptor mFd;
};

struct Notice {
    int fd;
    short revents;
    const EventHandler* handler;  // not kept alive by the record
    std::thread::id thread;
    bool errorLineBefore;
};

std::string failureLine(int fd, const char* flags) {
    return "fd(" + std::to_string(fd) + "): output event failed: " + flags;
}

class PeerTest : public SocketPairFixture {
  protected:
    // Records each call of the hang-up listener, then runs `then` inside it.
    void listen(std::function<void(int fd, std::shared_ptr<EventHandler>&)> then) {
        reactor.setHangUpListener(
                [this, then](int fd, short revents, std::shared_ptr<EventHandler> notified) {
                    const bool before = capture.countContaining(failureLine(fd, "")) > 0;
                    {
                        std::lock_guard<std::mutex> lock(noticesLock);
                        notices.push_back(
                                {fd, revents, notified.get(), std::this_thread::get_id(), before});
                    }
                    then(fd, notified);
                });
    }
    size_t noticeCount() {
        std::lock_guard<std::mutex> lock(noticesLock);
        return notices.size();
    }

    DefaultReactor reactor;
    std::mutex noticesLock;
    std::vector<Notice> notices;  // guarded by noticesLock
};

// The answer to a request carrying `seed`, and the byte written into its pipe.
uint8_t answerFor(uint32_t seed) { return static_cast<uint8_t>(seed * 3 + 1); }

std::atomic<int> gSignalsHandled{0};

// Signals without SA_RESTART hit the reactor's thread and the sender.
TEST_F(PeerTest, RequestsWithDescriptorsAreAnsweredOnceAcrossProcessesUnderSignals) {
    // Forked before the loop starts; writes each answer into the request's pipe.
    const pid_t child = forkPeer([this] {
        pair.first = FileDescriptor();
        UnixDomainSocket socket;
        socket.bind(std::move(pair.second));
        for (uint32_t served = 0;; ++served) {
            Message request;
            if (socket.recv(&request) != 0 || request.type() == kQuit) {
                return request.type() == kQuit && served == kRequests ? 0 : 1;
            }
            const Message::Payload payload = request.payload();
            const uint8_t answer = payload.data.empty() ? 0 : answerFor(payload.data[0]);
            const auto reply = makeMessage(request.id(), {answer});
            reply->setHeader(request.id(), 0, Message::kFlagReply, 1, 0);
            const bool written = payload.fds.size() == 1 && write(payload.fds[0], &answer, 1) == 1;
            MessageHandler().handleMessage(request);  // closed before the reply goes
            if (!written || socket.send(*reply) != 0) {
                return 2;
            }
        }
    });
    pair.second = FileDescriptor();
    CBRegistry registry(1);
    std::mutex lock;
    std::condition_variable replied;  // not waitUntil(): signals stretch its sleeps
    std::map<uint32_t, std::vector<uint8_t>> statuses;  // guarded by lock
    auto socket = std::make_shared<SocketEventHandler>(std::move(pair.first), EventType::READ);
    socket->setRunnable(std::make_shared<utils::FunctionRunnable>([&, raw = socket.get()] {
        auto reply = std::make_unique<Message>();
        if (raw->receiveMessage(reply.get()) == 0) {
            registry.unRegisterCB(std::move(reply));
        }
    }));
    ASSERT_TRUE(reactor.registerEventHandler(socket));
    ReactorThread loop(reactor);

    struct sigaction action {};
    struct sigaction previous {};
    action.sa_handler = [](int) { gSignalsHandled.fetch_add(1, std::memory_order_relaxed); };
    sigemptyset(&action.sa_mask);
    ASSERT_EQ(sigaction(SIGUSR1, &action, &previous), 0);
    const pthread_t targets[] = {loop.thread().native_handle(), pthread_self()};
    std::atomic<bool> stop{false};
    std::thread storm([&] {
        while (!stop.load()) {
            for (const pthread_t target : targets) {
                pthread_kill(target, SIGUSR1);
            }
        }
    });
    std::vector<FileDescriptor> readEnds;
    for (uint32_t i = 0; i < kRequests; ++i) {
        int ends[2];
        ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
        readEnds.emplace_back(ends[0], 0);
        const FileDescriptor writeEnd(ends[1], 0);  // the peer gets its own copy
        const auto request = makeMessage(kFirstId + i, {static_cast<uint8_t>(i)}, {writeEnd.get()});
        registry.registerCB(*request, [&, id = kFirstId + i](uint8_t status) {
            std::lock_guard<std::mutex> guard(lock);
            statuses[id].push_back(status);
            replied.notify_all();
        });
        EXPECT_EQ(socket->sendMessage(*request), 0) << "request " << i;
    }
    {
        std::unique_lock<std::mutex> guard(lock);
        EXPECT_TRUE(replied.wait_for(guard, 20s, [&] { return statuses.size() >= kRequests; }));
    }
    stop = true;
    storm.join();
    loop.stop();  // statuses is ours alone from here; ignoring discards a pending signal
    signal(SIGUSR1, SIG_IGN);
    sigaction(SIGUSR1, &previous, nullptr);
    EXPECT_GT(gSignalsHandled.load(), 0);

    EXPECT_EQ(capture.countContaining("failed"), 0u);
    for (uint32_t i = 0; i < kRequests; ++i) {
        EXPECT_EQ(statuses[kFirstId + i], std::vector<uint8_t>{answerFor(i)}) << i;
        uint8_t bytes[2] = {0, 0};
        EXPECT_EQ(read(readEnds[i].get(), bytes, sizeof(bytes)), 1) << i;
        EXPECT_EQ(bytes[0], answerFor(i));
        EXPECT_EQ(read(readEnds[i].get(), bytes, sizeof(bytes)), 0) << i;
    }
    ASSERT_EQ(socket->sendMessage(*makeMessage(0, {}, {}, nullptr, kQuit)), 0);
    EXPECT_EQ(waitPeer(child), 0);
}

// A listener installed while the loop runs.
TEST_F(PeerTest, KilledPeer_IsNoticedOnceOnTheLoopThreadAndTheLoopBlocksAgain) {
    const pid_t child = forkPeer([this] {
        pair.first = FileDescriptor();
        pause();
        return 0;
    });
    pair.second = FileDescriptor();
    auto handler = std::make_shared<Watched>(std::move(pair.first));
    const int fd = handler->fd();
    auto doorbell = std::make_shared<EventFdHandler>();  // stays: the loop blocks on it
    ASSERT_TRUE(reactor.registerEventHandler(handler));
    ASSERT_TRUE(reactor.registerEventHandler(doorbell));
    ReactorThread loop(reactor);
    const std::thread::id loopId = loop.thread().get_id();
    doorbell->ring();  // answered once the loop runs
    ASSERT_TRUE(waitUntil([&] { return doorbell->calls.load() == 1; }));
    listen([this](int hungUp, std::shared_ptr<EventHandler>&) {
        EXPECT_TRUE(reactor.removeEventHandlerByFd(hungUp));
    });
    ASSERT_EQ(kill(child, SIGKILL), 0);
    EXPECT_EQ(waitPeer(child), -1);  // killed, not exited

    ASSERT_TRUE(waitUntil([&] { return noticeCount() > 0; }));
    for (int ring = 2; ring <= 4; ++ring) {  // asleep between rings, one call each
        doorbell->ring();
        ASSERT_TRUE(waitUntil([&] { return doorbell->calls.load() == ring; }));
        ASSERT_TRUE(waitUntilAsleep(doorbell->thread.load()));
    }
    loop.stop();
    ASSERT_EQ(notices.size(), 1u);
    const Notice& n = notices[0];
    EXPECT_EQ(std::make_tuple(n.fd, n.revents & POLLHUP, n.handler, n.thread, n.errorLineBefore),
              std::make_tuple(fd, POLLHUP, static_cast<const EventHandler*>(handler.get()), loopId,
                              true));
    EXPECT_EQ(capture.count(failureLine(fd, "|hand up|")), 1u);
}

TEST_F(PeerTest, ListenerThatDropsTheHandler_EndsItsRegistrationWhenTheCycleEnds) {
    auto handler = std::make_shared<Watched>(std::move(pair.first));
    const int fd = handler->fd();
    listen([&handler](int, std::shared_ptr<EventHandler>& notified) {
        notified.reset();
        handler.reset();  // the cycle's own reference is the last one now
    });
    pair.second = FileDescriptor();
    ASSERT_TRUE(reactor.registerEventHandler(handler));
    ReactorThread loop(reactor);
    ASSERT_TRUE(capture.waitFor("handler(key: " + std::to_string(fd) + ") expired, remove it"));
    EXPECT_FALSE(isOpen(fd));  // closed by the handler when the cycle let go of it
    loop.stop();
    EXPECT_EQ(noticeCount(), 1u);
}

// A number nobody holds reports POLLNVAL on every cycle.
TEST_F(PeerTest, InvalidDescriptor_IsNoticedOnEveryCycleWhileTheListenerDoesNothing) {
    const int stale = pair.first.get();
    pair.first = FileDescriptor();
    listen([this](int, std::shared_ptr<EventHandler>&) {
        if (noticeCount() == 3) {
            reactor.requestExit();
        }
    });
    auto handler = std::make_shared<Watched>(stale);
    ASSERT_TRUE(reactor.registerEventHandler(handler));
    reactor.loop(0ms);
    // The exit is seen after one more cycle, which calls the listener too.
    ASSERT_EQ(noticeCount(), 4u);
    for (const Notice& notice : notices) {
        EXPECT_EQ(notice.fd, stale);
        EXPECT_EQ(notice.revents, POLLNVAL);
    }
    EXPECT_EQ(capture.count(failureLine(stale, "|invalid file descriptor|")), 4u);
}

// A listener installed and taken away leaves the default.
TEST_F(PeerTest, WithoutAListener_TheHangUpIsLoggedOnEveryCycleAndNotDispatched) {
    auto handler = std::make_shared<Watched>(std::move(pair.first));
    listen([](int, std::shared_ptr<EventHandler>&) {});
    reactor.setHangUpListener({});
    pair.second = FileDescriptor();
    ASSERT_TRUE(reactor.registerEventHandler(handler));
    ReactorThread loop(reactor, 100ms);
    const std::string failure = failureLine(handler->fd(), "|hand up|");
    ASSERT_TRUE(capture.waitFor(failure, 2));
    loop.stop();
    EXPECT_EQ(noticeCount(), 0u);
    EXPECT_EQ(capture.levelOf(failure), 1u);
}

}  // namespace
