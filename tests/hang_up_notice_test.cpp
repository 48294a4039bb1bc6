// The reactor's hang-up listener within one process: when it is called (after
// the error line, on the loop's thread, for error, hang-up and invalid
// descriptor flags), what the owner can do from inside it, and that the loop
// is unchanged without one.
#include <gtest/gtest.h>
#include <ipc/DefaultReactor.h>
#include <ipc/EventHandler.h>
#include <poll.h>
#include <sys/socket.h>
#include <sysutils/FileDescriptor.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/Descriptors.h"
#include "support/EventFdHandler.h"
#include "support/LogCapture.h"
#include "support/ReactorThread.h"
#include "support/Waiting.h"

namespace {

using namespace Kestrel::ipc;
using namespace velacam::test;
using Kestrel::utils::sys::FileDescriptor;

// Owns one end of a socket pair and counts its calls.
class SocketEnd : public EventHandler {
  public:
    explicit SocketEnd(FileDescriptor&& fd)
        : EventHandler(fd.get(), EventType::READ), mFd(std::move(fd)) {}
    void handleEvent() override { ++calls; }
    std::atomic<int> calls{0};

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
    char text[96];
    std::snprintf(text, sizeof(text), "fd(%d): output event failed: %s", fd, flags);
    return text;
}

class HangUpNoticeTest : public ::testing::Test {
  protected:
    void SetUp() override {
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
        handler = std::make_shared<SocketEnd>(FileDescriptor(ends[0], 0));
        peer = FileDescriptor(ends[1], 0);
    }
    // Records the call, then runs `then` (still inside the listener).
    DefaultReactor::HangUpListener recording(
            std::function<void(int fd, std::shared_ptr<EventHandler>&)> then) {
        return [this, then](int fd, short revents, std::shared_ptr<EventHandler> notified) {
            const bool before = capture.countContaining(failureLine(fd, "")) > 0;
            {
                std::lock_guard<std::mutex> lock(noticesLock);
                notices.push_back(
                        {fd, revents, notified.get(), std::this_thread::get_id(), before});
            }
            then(fd, notified);
        };
    }
    size_t noticeCount() {
        std::lock_guard<std::mutex> lock(noticesLock);
        return notices.size();
    }

    ScopedLeakCheck leaks;  // when the whole fixture is gone
    LogCapture capture;
    Watchdog watchdog{"hang-up notice test", 30s};
    DefaultReactor reactor;
    std::shared_ptr<SocketEnd> handler;
    FileDescriptor peer;
    std::mutex noticesLock;
    std::vector<Notice> notices;  // guarded by noticesLock
    std::optional<ReactorThread> loop;
};

TEST_F(HangUpNoticeTest, InstalledWhileTheLoopRuns_IsCalledOnTheLoopThreadAfterTheErrorLine) {
    const int fd = handler->fd();
    ASSERT_TRUE(reactor.registerEventHandler(handler));
    auto doorbell = std::make_shared<EventFdHandler>();
    ASSERT_TRUE(reactor.registerEventHandler(doorbell));
    loop.emplace(reactor);
    const std::thread::id loopId = loop->thread().get_id();
    doorbell->ring();  // answered once the loop runs
    ASSERT_TRUE(waitUntil([&] { return doorbell->calls.load() == 1; }));
    reactor.setHangUpListener(recording([this](int hungUp, std::shared_ptr<EventHandler>&) {
        EXPECT_TRUE(reactor.removeEventHandlerByFd(hungUp));
        reactor.requestExit();
    }));
    peer = FileDescriptor();  // the peer goes: POLLHUP from now on
    loop->join();

    ASSERT_EQ(notices.size(), 1u);
    const Notice& notice = notices[0];
    EXPECT_EQ(notice.fd, fd);
    EXPECT_NE(notice.revents & POLLHUP, 0);
    EXPECT_EQ(notice.handler, handler.get());
    EXPECT_EQ(notice.thread, loopId);
    EXPECT_TRUE(notice.errorLineBefore);
    EXPECT_EQ(capture.count(failureLine(fd, "|hand up|")), 1u);
    EXPECT_EQ(handler->calls.load(), 0);
}

TEST_F(HangUpNoticeTest, ListenerThatDropsTheHandler_EndsItsRegistrationWhenTheCycleEnds) {
    const int fd = handler->fd();
    reactor.setHangUpListener(recording([this](int, std::shared_ptr<EventHandler>& notified) {
        notified.reset();
        handler.reset();  // the cycle's own reference is the last one now
    }));
    peer = FileDescriptor();
    ASSERT_TRUE(reactor.registerEventHandler(handler));
    loop.emplace(reactor);
    char expired[64];
    std::snprintf(expired, sizeof(expired), "handler(key: %d) expired, remove it", fd);
    ASSERT_TRUE(capture.waitFor(expired));
    EXPECT_FALSE(isOpen(fd));  // closed by the handler when the cycle let go of it
    loop.reset();
    EXPECT_EQ(noticeCount(), 1u);
    EXPECT_EQ(capture.count(failureLine(fd, "|hand up|")), 1u);
}

// A number nobody holds reports POLLNVAL. A listener that does nothing about
// it is called again on every cycle, as the flag stays.
TEST_F(HangUpNoticeTest, InvalidDescriptor_IsNoticedOnEveryCycleWhileTheListenerDoesNothing) {
    struct Unowned : EventHandler {
        explicit Unowned(int fd) : EventHandler(fd, EventType::READ) {}
        void handleEvent() override { ADD_FAILURE() << "dispatched"; }
    };
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    ::close(ends[1]);
    ::close(ends[0]);
    auto stale = std::make_shared<Unowned>(ends[0]);
    reactor.setHangUpListener(recording([this](int, std::shared_ptr<EventHandler>&) {
        if (noticeCount() == 3) {
            reactor.requestExit();
        }
    }));
    ASSERT_TRUE(reactor.registerEventHandler(stale));
    reactor.loop(0ms);
    // The exit request is seen in the cycle after the third call, which still
    // reports the number and calls the listener a fourth time.
    ASSERT_EQ(noticeCount(), 4u);
    for (const Notice& notice : notices) {
        EXPECT_EQ(notice.fd, ends[0]);
        EXPECT_EQ(notice.revents, POLLNVAL);
    }
    EXPECT_EQ(capture.count(failureLine(ends[0], "|invalid file descriptor|")), 4u);
}

// Without a listener (or with one installed and taken away) the loop keeps
// the default: the error line on every cycle, at error level, and no call.
TEST_F(HangUpNoticeTest, WithoutAListener_TheHangUpIsLoggedOnEveryCycleAndNotDispatched) {
    reactor.setHangUpListener(recording([](int, std::shared_ptr<EventHandler>&) {}));
    reactor.setHangUpListener({});
    peer = FileDescriptor();
    ASSERT_TRUE(reactor.registerEventHandler(handler));
    loop.emplace(reactor, 100ms);
    const std::string failure = failureLine(handler->fd(), "|hand up|");
    ASSERT_TRUE(capture.waitFor(failure, 2));
    loop.reset();
    EXPECT_EQ(noticeCount(), 0u);
    EXPECT_EQ(handler->calls.load(), 0);
    EXPECT_EQ(capture.levelOf(failure), 1u);
}

}  // namespace
