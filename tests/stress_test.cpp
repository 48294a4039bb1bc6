// The library under load, each case bounded in work and in time: eight
// producers feeding one message loop; two hundred children started, observed
// and terminated; peers that close in the middle of a message. Every case
// checks that nothing was lost, duplicated, reordered or left open.
// Labelled "stress" (ctest -L stress); they run in every build of the matrix.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <ipc/Message.h>
#include <ipc/MessageHandler.h>
#include <ipc/MessageLoop.h>
#include <ipc/UnixDomainSocket.h>
#include <ipc/utils/Process.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <array>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include "support/Descriptors.h"
#include "support/Messages.h"
#include "support/RawPeer.h"
#include "support/Waiting.h"

namespace {

using namespace Kestrel::ipc;
using namespace Kestrel::ipc::utils;
using namespace velacam::test;

SocketPair makePair() {
    SocketPair pair = UnixDomainSocket::createPairedSocket(65536, 65536, false);
    EXPECT_GE(pair.first.get(), 0);
    return pair;
}

// ---------------------------------------------------------------------------
// Eight producers feeding one message loop: nothing lost, each one's order kept.

constexpr uint32_t kProducers = 8;
constexpr uint32_t kMessagesPerProducer = 25000;

// Counts on the loop's thread what each producer sent (its number is the
// message's type, the sequence its id); a message of type kProducers ends the
// loop. Read after the loop's thread has been joined.
class Tally : public MessageHandler {
  public:
    explicit Tally(MessageLoop& loop) : mLoop(loop) {}

    using MessageHandler::handleMessage;
    void handleMessage(std::unique_ptr<Message> message) override {
        if (message->type() >= kProducers) {
            mLoop.requestExit();
        } else if (message->id() == next[message->type()]) {
            ++next[message->type()];
            ++total;
        } else {
            ++outOfOrder;
        }
    }

    std::array<uint32_t, kProducers> next{};
    uint32_t total = 0;
    uint32_t outOfOrder = 0;

  private:
    MessageLoop& mLoop;
};

TEST(MessageLoopStress, EightProducersIntoOneLoopLoseNothingAndKeepEachOnesOrder) {
    Watchdog watchdog("message loop stress", 120s);
    MessageLoop loop;
    auto tally = std::make_shared<Tally>(loop);
    std::thread consumer([&] { loop.dispatchMessages(); });
    auto enqueue = [&](uint32_t id, uint32_t type) {
        loop.messageQueue().enqueueMessage(makeMessage(id, {}, {}, tally, type), 0ms);
    };

    std::promise<void> go;  // all producers start together
    std::shared_future<void> start = go.get_future().share();
    std::vector<std::thread> producers;
    for (uint32_t p = 0; p < kProducers; ++p) {
        producers.emplace_back([&, p] {
            start.wait();
            for (uint32_t n = 0; n < kMessagesPerProducer; ++n) {
                enqueue(n, p);
            }
        });
    }
    go.set_value();
    for (std::thread& producer : producers) {
        producer.join();
    }
    enqueue(0, kProducers);
    consumer.join();

    EXPECT_EQ(tally->outOfOrder, 0u);
    EXPECT_EQ(tally->total, kProducers * kMessagesPerProducer);  // in order only: all of each
}

// ---------------------------------------------------------------------------
// Two hundred children started, observed and terminated.

TEST(ProcessStress, TwoHundredChildrenAreStartedObservedAndTerminatedWithNoneLeft) {
    constexpr int kChildren = 200;
    ScopedLeakCheck leaks;
    Watchdog watchdog("process stress", 120s);
    const pid_t self = getpid();
    Process parent;
    std::vector<int> pids;
    for (int i = 0; i < kChildren; ++i) {
        const Process child = parent.create("/bin/sleep", {"60"}, {});
        if (getpid() != self) {
            _exit(127);  // exec failed in the child
        }
        ASSERT_GT(child.pid(), 0);
        pids.push_back(child.pid());
    }
    std::vector<int> observed;  // in the order they were started, each one alive
    for (const Process& child : parent.children()) {
        observed.push_back(child.pid());
        EXPECT_EQ(kill(child.pid(), 0), 0) << child.pid();
    }
    EXPECT_EQ(observed, pids);

    EXPECT_TRUE(parent.terminateAllChildProcess());
    EXPECT_TRUE(parent.children().empty());
    for (int pid : pids) {
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << pid << ": " << status;
    }
    errno = 0;
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

// ---------------------------------------------------------------------------
// Peers that close in the middle of a message: socket `i` first gets i % 4
// whole messages, each with a descriptor, then a header announcing 5 data
// bytes and i % 2 descriptors, and no payload record. Four threads read the
// sockets at once; gtest's assertions are safe from any thread.

constexpr size_t kClosingPeers = 64;
constexpr uint32_t kAnnouncedData = 5;

uint32_t wholeMessagesOn(size_t i) { return static_cast<uint32_t>(i % 4); }

// The closing peer: its ends in order, each closed right after the header.
int writeAndCloseMidMessage(std::vector<SocketPair>& pairs) {
    const FileDescriptor devNull(open("/dev/null", O_RDONLY | O_CLOEXEC), 0);
    for (size_t i = 0; i < pairs.size(); ++i) {
        pairs[i].first = FileDescriptor();
        const int end = pairs[i].second.get();
        UnixDomainSocket socket;
        socket.bind(std::move(pairs[i].second));
        for (uint32_t n = 0; n < wholeMessagesOn(i); ++n) {
            if (socket.send(*makeMessage(n, {static_cast<uint8_t>(n)}, {devNull.get()})) != 0) {
                return 1;
            }
        }
        if (!writeHeaderRecord(end, 99, kAnnouncedData, static_cast<uint16_t>(i % 2))) {
            return 2;
        }
    }
    return 0;
}

void readUntilTheCut(UnixDomainSocket& socket, size_t i) {
    SCOPED_TRACE(testing::Message() << "socket " << i);
    for (uint32_t n = 0; n < wholeMessagesOn(i); ++n) {
        Message message;
        ASSERT_EQ(socket.recv(&message), 0);
        const Message::Payload payload = message.payload();
        for (int fd : payload.fds) {
            close(fd);
        }
        EXPECT_EQ(message.id(), n);
        EXPECT_EQ(payload.data, std::vector<uint8_t>{static_cast<uint8_t>(n)});
        EXPECT_EQ(payload.fds.size(), 1u);
    }
    Message cut;
    if (i % 2 != 0) {
        EXPECT_EQ(socket.recv(&cut), -ENODATA);  // the descriptors never came
    } else {
        EXPECT_EQ(socket.recv(&cut), 0);  // the data reads as zeros
        EXPECT_EQ(cut.payload().data, std::vector<uint8_t>(kAnnouncedData, 0));
    }
    EXPECT_EQ(cut.dataCount(), kAnnouncedData);
    // End of stream is not detected: it reads as an empty message.
    Message after;
    EXPECT_EQ(socket.recv(&after), 0);
    EXPECT_EQ(after.dataCount(), 0u);
    EXPECT_EQ(after.fileDescriptorCount(), 0u);
}

TEST(TransportStress, PeersClosingAfterTheHeaderRecord_FailOrEndTheMessageAndLeaveNothingOpen) {
    constexpr int kReceivers = 4;
    ScopedLeakCheck leaks;
    for (int round = 0; round < 6; ++round) {
        SCOPED_TRACE(testing::Message() << "round " << round);
        std::vector<SocketPair> pairs;
        for (size_t i = 0; i < kClosingPeers; ++i) {
            pairs.push_back(makePair());
        }
        const pid_t peer = forkPeer([&] { return writeAndCloseMidMessage(pairs); });
        std::vector<UnixDomainSocket> sockets(kClosingPeers);
        for (size_t i = 0; i < kClosingPeers; ++i) {
            pairs[i].second = FileDescriptor();
            sockets[i].bind(std::move(pairs[i].first));
        }
        {
            Watchdog watchdog("closing peers", 60s);
            std::vector<std::thread> receivers;
            for (int r = 0; r < kReceivers; ++r) {
                receivers.emplace_back([&sockets, r] {
                    for (size_t i = r; i < kClosingPeers; i += kReceivers) {
                        readUntilTheCut(sockets[i], i);
                    }
                });
            }
            for (std::thread& receiver : receivers) {
                receiver.join();
            }
        }
        EXPECT_EQ(waitPeer(peer, 60), 0);
    }
}

}  // namespace
