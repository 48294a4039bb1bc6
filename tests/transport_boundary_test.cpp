// The transport's boundary against a hostile peer and a careless caller: a
// message the kernel would refuse leaves the wire untouched; a header's counts
// cost no more memory than the record behind it brings, and never end the
// process; a peer that stalls between its two records costs a bounded wait,
// while its neighbours on the same reactor are still served; a peer that
// closes during that wait ends it at once. Nothing stays open.
#include <errno.h>
#include <gtest/gtest.h>
#include <ipc/DefaultReactor.h>
#include <ipc/Message.h>
#include <ipc/SocketEventHandler.h>
#include <ipc/UnixDomainSocket.h>
#include <ipc/utils/FunctionRunnable.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "support/Messages.h"
#include "support/ReactorThread.h"
#include "support/SocketPairFixture.h"
#include "support/Waiting.h"

namespace {

using namespace Kestrel::ipc;
using namespace velacam::test;
using Kestrel::ipc::utils::FunctionRunnable;
using Clock = std::chrono::steady_clock;

// A field of /proc/self/status in kB ("VmHWM", "VmSize").
long statusKiB(const std::string& field) {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind(field + ":", 0) == 0) {
            return std::stol(line.substr(field.size() + 1));
        }
    }
    return -1;
}

Message messageOf(uint32_t id, size_t dataBytes, const std::vector<int>& fds) {
    return std::move(*makeMessage(id, std::vector<uint8_t>(dataBytes, 'd'), fds));
}

// The library receives (and sends) on the first end; the test plays the peer
// on the second with raw records.
class TransportBoundaryTest : public SocketPairFixture {
  protected:
    TransportBoundaryTest() { receiver.bind(std::move(pair.first)); }

    UnixDomainSocket receiver;
    FileDescriptor& peer = pair.second;
};

TEST_F(TransportBoundaryTest, SendsTheKernelWouldRefuse_PutNothingOnTheWire) {
    int sendBuffer = 0;
    socklen_t length = sizeof(sendBuffer);
    ASSERT_EQ(getsockopt(near, SOL_SOCKET, SO_SNDBUF, &sendBuffer, &length), 0);
    EXPECT_EQ(receiver.send(messageOf(1, 1, std::vector<int>(254, file.get()))), -EINVAL);
    EXPECT_EQ(receiver.send(messageOf(2, static_cast<size_t>(sendBuffer), {})), -EMSGSIZE);
    EXPECT_EQ(readRecord(peer.get(), 64, 0, MSG_DONTWAIT).error, EAGAIN);

    // The largest of each still goes, as two records, in order.
    const size_t largest = static_cast<size_t>(sendBuffer) - 32;
    ASSERT_EQ(receiver.send(messageOf(3, largest, std::vector<int>(253, file.get()))), 0);
    const RawRecord header = readRecord(peer.get(), 64, 0, MSG_DONTWAIT);
    ASSERT_EQ(header.result, 24);
    EXPECT_EQ(header.data[0], 3);
    const RawRecord payload = readRecord(peer.get(), sendBuffer, 253, MSG_DONTWAIT);
    EXPECT_EQ(payload.result, static_cast<ssize_t>(largest));
    ASSERT_EQ(payload.controls.size(), 1u);
    EXPECT_EQ(payload.controls[0].fds.size(), 253u);
}

TEST_F(TransportBoundaryTest, LargeAnnouncements_CostOnlyWhatArrivesAndNeverEndTheProcess) {
    // 1 GiB announced, 3 bytes sent: the receive is refused, and the peak
    // resident size barely moves.
    const pid_t measured = forkPeer([this] {
        std::ofstream("/proc/self/clear_refs") << "5";  // resets VmHWM
        const long before = statusKiB("VmHWM");
        Message received;
        if (!writeHeaderRecord(peer.get(), 1, 1u << 30, 0) ||
            writeRecord(peer.get(), "abc", 3, {}) != 3 || receiver.recv(&received) != -EBADMSG) {
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

// A runnable that receives one message per event on `handler` and reports the
// result once.
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
    stalled->setRunnable(reportingReceiver(reactor, stalled, stalledResult));
    healthy->setRunnable(reportingReceiver(reactor, healthy, healthyResult));

    ASSERT_TRUE(writeHeaderRecord(stalledPeer.get(), 1, 3, 0));
    ASSERT_EQ(healthyPeer.sendMessage(messageOf(2, 3, {})), 0);
    const auto start = Clock::now();
    ASSERT_TRUE(reactor.registerEventHandler(stalled));
    ASSERT_TRUE(reactor.registerEventHandler(healthy));
    ReactorThread thread(reactor);
    auto healthyServed = healthyResult.get_future();
    ASSERT_EQ(healthyServed.wait_for(std::chrono::seconds(2)), std::future_status::ready);
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(2));
    EXPECT_EQ(healthyServed.get(), 0);
    EXPECT_EQ(stalledResult.get_future().get(), -ECONNABORTED);
    thread.stop();
}

TEST_F(TransportBoundaryTest, PeerClosingDuringTheWait_EndsItAtOnce) {
    receiver.setPayloadTimeout(std::chrono::seconds(30));
    ASSERT_TRUE(writeHeaderRecord(peer.get(), 1, 3, 1));
    std::promise<pid_t> receiving;
    auto result = std::async(std::launch::async, [&] {
        receiving.set_value(static_cast<pid_t>(gettid()));
        Message message;
        return receiver.recv(&message);
    });
    // Asleep: in the receive, waiting for the payload record.
    EXPECT_TRUE(waitUntilAsleep(receiving.get_future().get()));
    const auto closed = Clock::now();
    peer = FileDescriptor();
    ASSERT_EQ(result.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    EXPECT_LT(Clock::now() - closed, std::chrono::seconds(5));
    EXPECT_EQ(result.get(), -ENODATA);  // the announced descriptor never came
}

}  // namespace
