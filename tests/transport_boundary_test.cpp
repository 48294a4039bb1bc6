// The transport's receive against a hostile peer and a careless caller: stalls,
// signals, records with the wrong descriptors or credentials.
#include <errno.h>
#include <ipc/DefaultReactor.h>
#include <ipc/SocketEventHandler.h>
#include <ipc/utils/FunctionRunnable.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <future>
#include <memory>
#include <string>
#include <tuple>

#include "support/Messages.h"
#include "support/ReactorThread.h"
#include "support/SocketPairFixture.h"

namespace {

using namespace Kestrel::ipc;
using namespace velacam::test;
using Clock = std::chrono::steady_clock;

constexpr int kUntouched = 0x5a5a5a5a;
constexpr int kCanary = 0x7eadbeef;
const char* const kTooMany = "The number of received fds is larger than expected";

class TransportBoundaryTest : public RawPeerTest {
  protected:
    // Into an array with a canary behind it.
    int receive(size_t expected) {
        slots.assign(expected, kUntouched);
        slots.push_back(kCanary);
        data.assign(16, 0);
        return receiver.receiveDataAndFileDescriptors(slots.data(), expected, data.data(),
                                                      data.size());
    }
    // A refusal sets every slot to -1; a success fills `arrived` slots only.
    void expectSlots(int result, size_t arrived) {
        for (size_t i = 0; i + 1 < slots.size(); ++i) {
            if (result != 0) {
                EXPECT_EQ(slots[i], -1) << "slot " << i;
            } else if (i < arrived) {
                const FileDescriptor owned(slots[i], 0);
                EXPECT_TRUE(sameFile(owned.get(), file.get())) << "slot " << i;
            } else {
                EXPECT_EQ(slots[i], kUntouched) << "slot " << i;
            }
        }
        EXPECT_EQ(slots.back(), kCanary) << "written past the caller's array";
    }
    std::vector<int> copies(size_t count) const { return std::vector<int>(count, file.get()); }
    // A receive started on a thread of its own, returning once it sleeps.
    std::future<int> blockedReceive() {
        return startBlocked([this] {
            Message message;
            return receiver.recv(&message);
        });
    }

    std::vector<int> slots;
    std::vector<uint8_t> data;
};

TEST(TransportStallTest, StalledPeer_CostsTheReactorABoundedWaitAndItsNeighbourIsServed) {
    ScopedLeakCheck leaks;
    Watchdog watchdog("stalled peer", std::chrono::seconds(30));
    DefaultReactor reactor;
    SocketPair stalledPair = UnixDomainSocket::createPairedSocket(65536, 65536, false);
    SocketPair healthyPair = UnixDomainSocket::createPairedSocket(65536, 65536, false);
    ASSERT_LT(stalledPair.first.get(), healthyPair.first.get());  // served first
    std::promise<int> results[2];
    std::shared_ptr<SocketEventHandler> handlers[2];
    for (int i = 0; i < 2; ++i) {  // each receives one message, then removes itself
        SocketPair& pair = i == 0 ? stalledPair : healthyPair;
        handlers[i] = std::make_shared<SocketEventHandler>(std::move(pair.first), EventType::READ);
        handlers[i]->setRunnable(std::make_shared<utils::FunctionRunnable>(
                [&reactor, &result = results[i], handler = std::weak_ptr(handlers[i])] {
                    Message message;
                    const int received = handler.lock()->receiveMessage(&message);
                    EXPECT_TRUE(reactor.removeEventHandler(handler));
                    result.set_value(received);
                }));
    }
    handlers[0]->setPayloadTimeout(std::chrono::milliseconds(50));
    ASSERT_TRUE(writeHeaderRecord(stalledPair.second.get(), 1, 3, 0));
    SocketEventHandler healthyPeer(std::move(healthyPair.second), EventType::WRITE);
    ASSERT_EQ(healthyPeer.sendMessage(*makeMessage(2, {1, 2, 3})), 0);
    ASSERT_TRUE(reactor.registerEventHandler(handlers[0]));
    ASSERT_TRUE(reactor.registerEventHandler(handlers[1]));
    const auto started = Clock::now();
    ReactorThread thread(reactor);
    auto healthyServed = results[1].get_future();
    ASSERT_EQ(healthyServed.wait_for(std::chrono::seconds(2)), std::future_status::ready);
    EXPECT_EQ(healthyServed.get(), 0);
    // Served after the stall, which the handler's own bound ended well
    // before the socket's default of 1 s.
    EXPECT_LT(Clock::now() - started, std::chrono::milliseconds(800));
    EXPECT_EQ(results[0].get_future().get(), -ECONNABORTED);
}

// Nothing sets the payload time-out here: the default bound is behaviour too.
TEST_F(TransportBoundaryTest, StalledPeer_AtTheDefaultBound_CostsAboutASecondThenOutOfStep) {
    ASSERT_TRUE(writeHeaderRecord(peer.get(), 1, 3, 0));
    const auto started = Clock::now();
    auto result = blockedReceive();
    ASSERT_EQ(result.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    const auto waited = Clock::now() - started;
    EXPECT_EQ(result.get(), -ECONNABORTED);
    EXPECT_GE(waited, std::chrono::milliseconds(900));
    EXPECT_LT(waited, std::chrono::seconds(5));  // 1 s, twice that at most, and a loaded machine
}

TEST_F(TransportBoundaryTest, PeerClosingDuringTheWait_EndsItAtOnce) {
    receiver.setPayloadTimeout(std::chrono::seconds(30));
    ASSERT_TRUE(writeHeaderRecord(peer.get(), 1, 3, 1));
    auto result = blockedReceive();  // asleep: waiting for the payload record
    peer = FileDescriptor();
    ASSERT_EQ(result.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    EXPECT_EQ(result.get(), -ENODATA);  // the announced descriptor never came
}

// A fresh message takes its payload in place: a refused one must leave it
// with the new header alone, as a used message keeps its old payload.
TEST_F(TransportBoundaryTest, RefusedPayload_LeavesTheNewHeaderAndTheOldPayload) {
    for (const bool used : {false, true}) {
        SCOPED_TRACE(used ? "used message" : "fresh message");
        Message message;
        Message::Payload old;
        old.data = {'o', 'l', 'd'};
        if (used) {
            message.setPayload(old);
        }
        ASSERT_TRUE(writeHeaderRecord(peer.get(), 9, 3, 1));
        ASSERT_EQ(writeRecord(peer.get(), "new", 3, {}, false), 3);  // its descriptor missing
        EXPECT_EQ(receiver.recv(&message), -ENODATA);
        EXPECT_EQ(std::make_tuple(message.id(), message.dataCount()), std::make_tuple(9u, 3u));
        EXPECT_EQ(message.payload().data, used ? old.data : std::vector<uint8_t>{});
    }
}

// qemu-user neither drops surplus descriptors nor sets MSG_CTRUNC: kernelOnly.
TEST_F(TransportBoundaryTest, RecordsBreakingTheFormat_AreServedOrRefusedWithoutLeaksOrOverruns) {
    // A record "ab" carrying `sent` copies of a descriptor, received expecting `expected`.
    struct RecordCase {
        const char* what;
        size_t sent;
        bool withRights;
        size_t expected;
        int result;
        const char* line;  // the error line logged, if any
        bool kernelOnly;
    };
    const RecordCase cases[] = {
            // One expected: a 64-bit control buffer has room for two, so both
            // arrive; a 32-bit one has room for one, and qemu-user leaks the other.
            {"one more than an odd count", 2, true, 1, -EMSGSIZE, kTooMany, sizeof(void*) == 4},
            {"fewer than expected", 2, true, 3, 0,
             "The number of received fds(2) is less than expected(3)", false},
            {"an empty SCM_RIGHTS message", 0, true, 2, -ENODATA,
             "The number of received fds(0) is less than expected(2)", false},
            {"no control message at all", 0, false, 1, -ENODATA,
             "The number of received fds(0) is less than expected(1)", false},
            // Two expected, five sent: the kernel delivers two and drops the rest.
            {"more than an even count", 5, true, 2, -EMSGSIZE, kTooMany, true},
            {"descriptors where none are expected", 3, true, 0, 0, nullptr, true},
    };
    for (const RecordCase& c : cases) {
        if (c.kernelOnly && underEmulation()) {
            continue;
        }
        SCOPED_TRACE(c.what);
        capture.clear();
        ASSERT_EQ(writeRecord(peer.get(), "ab", 2, copies(c.sent), c.withRights), 2);
        const int result = receive(c.expected);
        EXPECT_EQ(result, c.result);
        expectSlots(result, std::min(c.sent, c.expected));
        EXPECT_EQ(std::string(data.begin(), data.begin() + 2), "ab");
        if (c.line != nullptr) {
            EXPECT_EQ(capture.count(c.line), 1u) << c.line;
            EXPECT_EQ(capture.levelOf(c.line), 1u);
        }
    }
}

// Credentials (uid and gid 0 as root: standard input) are never closed.
TEST_F(TransportBoundaryTest, CredentialsInsteadOfDescriptors_AreRefusedAndNeverClosed) {
    if (underEmulation()) {
        GTEST_SKIP() << "qemu-user's recvmsg adds no credentials";
    }
    const int on = 1;
    ASSERT_EQ(setsockopt(near, SOL_SOCKET, SO_PASSCRED, &on, sizeof(on)), 0);
    for (const size_t expected : {1u, 10u}) {
        ASSERT_EQ(writeRecord(peer.get(), "ab", 2, copies(expected)), 2);
        EXPECT_EQ(receive(expected), -EBADMSG);
        expectSlots(-EBADMSG, 0);
    }
    EXPECT_TRUE(isOpen(0));
    EXPECT_EQ(capture.count("unexpected control message level(1) type(2)"), 2u);
}

std::atomic<int> gSignalsHandled{0};

// True once thread `tid` sleeps in a receive call (recvmsg or recvmmsg). Under
// qemu-user /proc shows the host's calls, so any sleep has to do there.
bool receiving(pid_t tid) {
    if (underEmulation()) {
        return waitUntilAsleep(tid, std::chrono::milliseconds(1));
    }
    long number = -1;  // "running" reads as no number
    std::ifstream("/proc/self/task/" + std::to_string(tid) + "/syscall") >> number;
    return number == SYS_recvmmsg || number == SYS_recvmsg;
}

// A signal that cuts the wait for the payload record short must neither lose
// the record nor leave an error behind for this receive or the next.
TEST_F(TransportBoundaryTest, SignalDuringThePayloadWait_LosesNeitherThisMessageNorTheNext) {
    struct sigaction action {};
    action.sa_handler = [](int) { gSignalsHandled.fetch_add(1); };  // no SA_RESTART
    struct sigaction previous {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, &previous), 0);
    for (const auto timeout : {std::chrono::milliseconds(5000), std::chrono::milliseconds(0)}) {
        SCOPED_TRACE("payload time-out " + std::to_string(timeout.count()) + " ms");
        receiver.setPayloadTimeout(timeout);
        ASSERT_TRUE(writeHeaderRecord(peer.get(), 7, 3, 0));
        std::promise<pid_t> waiter;
        auto result = std::async(std::launch::async, [&] {
            waiter.set_value(gettid());
            Message message;
            const int received = receiver.recv(&message);
            return received == 0 && message.id() == 7 && message.payload().data.size() == 3
                           ? 0
                           : received - 1000;
        });
        const pid_t tid = waiter.get_future().get();
        ASSERT_TRUE(waitUntil([&] { return receiving(tid); }));
        const int handled = gSignalsHandled.load();
        ASSERT_EQ(syscall(SYS_tgkill, getpid(), tid, SIGUSR1), 0);
        // Handled, and then either waiting for the record again or done.
        ASSERT_TRUE(waitUntil([&] {
            return gSignalsHandled.load() > handled &&
                   (receiving(tid) ||
                    result.wait_for(std::chrono::seconds(0)) == std::future_status::ready);
        }));
        ASSERT_EQ(writeRecord(peer.get(), "abc", 3, {}), 3);
        ASSERT_EQ(result.wait_for(std::chrono::seconds(5)), std::future_status::ready);
        EXPECT_EQ(result.get(), 0);
        sendRaw(8, 2, {'d', 'e'});
        expectMessage(8, {'d', 'e'});
    }
    sigaction(SIGUSR1, &previous, nullptr);
}

}  // namespace
