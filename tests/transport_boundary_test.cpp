// The transport's receive against a hostile peer and a careless caller: lying
// headers, stalls, records with the wrong descriptors or credentials. The send
// side's cases are in transport_send_boundary_test.cpp.
#include <errno.h>
#include <gtest/gtest.h>
#include <ipc/DefaultReactor.h>
#include <ipc/Message.h>
#include <ipc/SocketEventHandler.h>
#include <ipc/UnixDomainSocket.h>
#include <ipc/utils/FunctionRunnable.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "support/Messages.h"
#include "support/ProcessStatus.h"
#include "support/ReactorThread.h"
#include "support/SocketPairFixture.h"
#include "support/Waiting.h"

namespace {

using namespace Kestrel::ipc;
using namespace velacam::test;
using Kestrel::ipc::utils::FunctionRunnable;
using Clock = std::chrono::steady_clock;

Message messageOf(uint32_t id, size_t dataBytes, const std::vector<int>& fds) {
    return std::move(*makeMessage(id, std::vector<uint8_t>(dataBytes, 'd'), fds));
}

constexpr int kUntouched = 0x5a5a5a5a;
constexpr int kCanary = 0x7eadbeef;
const char* const kTooMany = "The number of received fds is larger than expected";

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

// The test plays the peer with raw records.
class TransportBoundaryTest : public SocketPairFixture {
  protected:
    TransportBoundaryTest() { receiver.bind(std::move(pair.first)); }
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

    UnixDomainSocket receiver;
    FileDescriptor& peer = pair.second;
    std::vector<int> slots;
    std::vector<uint8_t> data;
};

TEST_F(TransportBoundaryTest, LargeAnnouncements_CostOnlyWhatArrivesAndNeverEndTheProcess) {
    // 1 GiB announced, 3 bytes sent: refused, the peak resident size barely moves.
    const pid_t measured = forkPeer([this] {
        std::ofstream("/proc/self/clear_refs") << "5";  // resets VmHWM
        const long before = statusKiB("VmHWM");
        Message received;
        if (!writeHeaderRecord(peer.get(), 1, 1u << 30, 0) ||
            writeRecord(peer.get(), "abc", 3, {}) != 3 || receiver.recv(&received) != -EMSGSIZE) {
            return 1;
        }
        return statusKiB("VmHWM") - before < 64 * 1024 ? 0 : 2;
    });
    EXPECT_EQ(waitPeer(measured), 0);

    // 4 GiB - 1 announced where the address space cannot hold it.
    const pid_t limited = forkPeer([this] {
        const rlim_t room = static_cast<rlim_t>(statusKiB("VmSize")) * 1024 + (rlim_t{1} << 30);
        const rlimit limit{room, room};
        Message received;
        if (setrlimit(RLIMIT_AS, &limit) != 0 || !writeHeaderRecord(peer.get(), 1, ~0u, 0) ||
            writeRecord(peer.get(), "abc", 3, {}) != 3) {
            return 1;
        }
        return receiver.recv(&received) < 0 ? 0 : 2;
    });
    EXPECT_EQ(waitPeer(limited), 0);
}

// Receives one message on `handler`, then removes it and reports the result.
std::shared_ptr<FunctionRunnable> reportingReceiver(DefaultReactor& reactor,
                                                    std::weak_ptr<SocketEventHandler> handler,
                                                    std::promise<int>& result) {
    return std::make_shared<FunctionRunnable>([&reactor, handler, &result] {
        Message message;
        const int received = handler.lock()->receiveMessage(&message);
        EXPECT_TRUE(reactor.removeEventHandler(handler));
        result.set_value(received);
    });
}

TEST(TransportStallTest, StalledPeer_CostsTheReactorABoundedWaitAndItsNeighbourIsServed) {
    ScopedLeakCheck leaks;
    Watchdog watchdog("stalled peer", std::chrono::seconds(30));
    DefaultReactor reactor;
    SocketPair stalledPair = UnixDomainSocket::createPairedSocket(65536, 65536, false);
    SocketPair healthyPair = UnixDomainSocket::createPairedSocket(65536, 65536, false);
    ASSERT_LT(stalledPair.first.get(), healthyPair.first.get());  // served first
    FileDescriptor stalledPeer = std::move(stalledPair.second);
    auto stalled =
            std::make_shared<SocketEventHandler>(std::move(stalledPair.first), EventType::READ);
    auto healthy =
            std::make_shared<SocketEventHandler>(std::move(healthyPair.first), EventType::READ);
    SocketEventHandler healthyPeer(std::move(healthyPair.second), EventType::WRITE);
    std::promise<int> stalledResult;
    std::promise<int> healthyResult;
    stalled->setPayloadTimeout(std::chrono::milliseconds(50));
    stalled->setRunnable(reportingReceiver(reactor, stalled, stalledResult));
    healthy->setRunnable(reportingReceiver(reactor, healthy, healthyResult));

    ASSERT_TRUE(writeHeaderRecord(stalledPeer.get(), 1, 3, 0));
    ASSERT_EQ(healthyPeer.sendMessage(messageOf(2, 3, {})), 0);
    ASSERT_TRUE(reactor.registerEventHandler(stalled));
    ASSERT_TRUE(reactor.registerEventHandler(healthy));
    const auto started = Clock::now();
    ReactorThread thread(reactor);
    auto healthyServed = healthyResult.get_future();
    ASSERT_EQ(healthyServed.wait_for(std::chrono::seconds(2)), std::future_status::ready);
    EXPECT_EQ(healthyServed.get(), 0);
    // Served after the stall, which the handler's own bound ended well
    // before the socket's default of 1 s.
    EXPECT_LT(Clock::now() - started, std::chrono::milliseconds(800));
    EXPECT_EQ(stalledResult.get_future().get(), -ECONNABORTED);
    thread.stop();
}

// Nothing sets the payload time-out here: the default bound is behaviour too.
TEST_F(TransportBoundaryTest, StalledPeer_AtTheDefaultBound_CostsAboutASecondThenOutOfStep) {
    ASSERT_TRUE(writeHeaderRecord(peer.get(), 1, 3, 0));
    const auto started = Clock::now();
    auto result = startBlocked([&] {
        Message message;
        return receiver.recv(&message);
    });
    ASSERT_EQ(result.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    const auto waited = Clock::now() - started;
    EXPECT_EQ(result.get(), -ECONNABORTED);
    EXPECT_GE(waited, std::chrono::milliseconds(900));
    EXPECT_LT(waited, std::chrono::seconds(5));  // 1 s, twice that at most, and a loaded machine
}

TEST_F(TransportBoundaryTest, PeerClosingDuringTheWait_EndsItAtOnce) {
    receiver.setPayloadTimeout(std::chrono::seconds(30));
    ASSERT_TRUE(writeHeaderRecord(peer.get(), 1, 3, 1));
    auto result = startBlocked([&] {  // asleep: waiting for the payload record
        Message message;
        return receiver.recv(&message);
    });
    const auto closed = Clock::now();
    peer = FileDescriptor();
    ASSERT_EQ(result.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    EXPECT_LT(Clock::now() - closed, std::chrono::seconds(5));
    EXPECT_EQ(result.get(), -ENODATA);  // the announced descriptor never came
}

// A fresh message takes its payload in place: a refused one must leave it
// with the new header alone, as a used message keeps its old payload.
TEST_F(TransportBoundaryTest, RefusedPayload_LeavesTheNewHeaderAndTheOldPayload) {
    for (const bool used : {false, true}) {
        SCOPED_TRACE(used ? "used message" : "fresh message");
        Message message;
        if (used) {
            Message::Payload old;
            old.data = {'o', 'l', 'd'};
            message.setPayload(old);
        }
        ASSERT_TRUE(writeHeaderRecord(peer.get(), 9, 3, 1));
        ASSERT_EQ(writeRecord(peer.get(), "new", 3, {}, false), 3);  // its descriptor missing
        EXPECT_EQ(receiver.recv(&message), -ENODATA);
        EXPECT_EQ(message.id(), 9u);
        EXPECT_EQ(message.dataCount(), 3u);
        const std::vector<uint8_t> expected =
                used ? std::vector<uint8_t>{'o', 'l', 'd'} : std::vector<uint8_t>{};
        EXPECT_EQ(message.payload().data, expected);
    }
}

// qemu-user neither drops surplus descriptors nor sets MSG_CTRUNC: kernelOnly.
TEST_F(TransportBoundaryTest, RecordsBreakingTheFormat_AreServedOrRefusedWithoutLeaksOrOverruns) {
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

// The first records of a socket are taken two at a time into room prepared
// before the header is read; a record longer than that room must still arrive
// whole, and what the peer sends past the announced size must not shift the
// next message.
TEST_F(TransportBoundaryTest, PayloadRecordsOfAnyLength_ArriveWholeAndInStep) {
    struct Sent {
        uint32_t announced;
        size_t sent;
    };
    // Small, then past a new message's room, then the largest, then one
    // longer than announced, then small again for long enough to take two at
    // a time.
    constexpr uint32_t kMost = UnixDomainSocket::kMaxInlineData;
    std::vector<Sent> sequence = {{0, 0}, {64, 64}, {232, 232}, {233, 233}, {kMost, kMost}};
    sequence.push_back({10, kMost});
    for (int i = 0; i < 10; ++i) {
        sequence.push_back({48, 48});
    }
    // Mid-sized ones get room the size of the last.
    sequence.insert(sequence.end(), {{3000, 3000}, {3000, 3000}, {100, 100}, {5000, 5000}});
    sequence.push_back({60000, 60000});
    sequence.push_back({5, 50000});
    uint32_t id = 0;
    for (const Sent& s : sequence) {
        SCOPED_TRACE("message " + std::to_string(++id));
        std::vector<uint8_t> bytes(s.sent);
        for (size_t i = 0; i < bytes.size(); ++i) {
            bytes[i] = static_cast<uint8_t>(i * 7 + id);
        }
        ASSERT_TRUE(writeHeaderRecord(peer.get(), id, s.announced, 0));
        ASSERT_EQ(writeRecord(peer.get(), bytes.data(), bytes.size(), {}),
                  static_cast<ssize_t>(bytes.size()));
        Message message;
        ASSERT_EQ(receiver.recv(&message), 0);
        EXPECT_EQ(message.id(), id);
        bytes.resize(s.announced);
        EXPECT_EQ(message.payload().data, bytes);
    }
}

// Descriptors a record brings beyond what its header announced are closed,
// also when the header announced none.
TEST_F(TransportBoundaryTest, UnannouncedDescriptors_AreClosedWhateverTheRecordsLength) {
    for (const size_t length : {size_t{3}, size_t{50000}}) {
        const std::vector<uint8_t> bytes(length, 'u');
        ASSERT_TRUE(writeHeaderRecord(peer.get(), 1, static_cast<uint32_t>(length), 0));
        ASSERT_EQ(writeRecord(peer.get(), bytes.data(), length, copies(3)),
                  static_cast<ssize_t>(length));
        Message message;
        EXPECT_EQ(receiver.recv(&message), 0);
        EXPECT_EQ(message.fileDescriptorCount(), 0u);
        EXPECT_EQ(message.payload().data, bytes);
    }
}  // the fixture's leak check: nothing of the six stayed open

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
            waiter.set_value(static_cast<pid_t>(syscall(SYS_gettid)));
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

        ASSERT_TRUE(writeHeaderRecord(peer.get(), 8, 2, 0));
        ASSERT_EQ(writeRecord(peer.get(), "de", 2, {}), 2);
        Message next;
        EXPECT_EQ(receiver.recv(&next), 0);
        EXPECT_EQ(next.id(), 8u);
    }
    sigaction(SIGUSR1, &previous, nullptr);
}

}  // namespace
