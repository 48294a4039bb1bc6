// The library under load, each case bounded in work and in time: handlers
// registered and dropped while a peer process writes and the reactor loops;
// eight producers feeding one message loop; two hundred children started,
// observed and terminated; peers that close in the middle of a message. Every
// case checks that nothing was lost, duplicated, reordered or left open.
// Labelled "stress" (ctest -L stress); they run in every build of the matrix.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <ipc/DefaultReactor.h>
#include <ipc/Message.h>
#include <ipc/MessageHandler.h>
#include <ipc/MessageLoop.h>
#include <ipc/SocketEventHandler.h>
#include <ipc/UnixDomainSocket.h>
#include <ipc/utils/Process.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include "support/Descriptors.h"
#include "support/FunctionRunnable.h"
#include "support/RawPeer.h"
#include "support/ReactorThread.h"
#include "support/Waiting.h"

namespace {

using namespace Kestrel::ipc;
using namespace Kestrel::ipc::utils;
using namespace velacam::test;

constexpr uint32_t kData = 1;
constexpr uint32_t kEnd = 2;

SocketPair makePair() {
    SocketPair pair = UnixDomainSocket::createPairedSocket(65536, 65536, false);
    EXPECT_GE(pair.first.get(), 0);
    return pair;
}

// A message of `type` and `id` carrying the id as its 4 data bytes and, when
// `fd` is not negative, that descriptor.
Message numbered(uint32_t type, uint32_t id, int fd) {
    Message message;
    Message::Payload payload;
    payload.data.resize(sizeof(id));
    std::memcpy(payload.data.data(), &id, sizeof(id));
    if (fd >= 0) {
        payload.fds.push_back(fd);
    }
    message.setPayload(payload);
    message.setHeader(id, type, 0, sizeof(id), static_cast<uint16_t>(payload.fds.size()));
    return message;
}

bool readable(int fd) {
    pollfd entry{fd, POLLIN, 0};
    return poll(&entry, 1, 0) == 1 && (entry.revents & POLLIN) != 0;
}

// ---------------------------------------------------------------------------
// Handlers coming and going while a peer process writes and the reactor loops.

constexpr size_t kStreams = 4;
constexpr int kChurnRounds = 250;

// What arrived on one socket: written on the reactor's thread only; the
// churning threads read the atomics.
struct Stream {
    FileDescriptor end;  // the receiving end; each handler watches a duplicate
    FileDescriptor peer;
    std::vector<uint32_t> ids;  // data messages in arrival order
    uint32_t announced = 0;     // the count the end message gave
    std::atomic<int> received{0};
    std::atomic<bool> ended{false};
};

// Every handler of a stream receives one message when one is queued (another
// handler of the same socket may have taken it in the same cycle), closes the
// descriptor it carried and records its id.
std::shared_ptr<SocketEventHandler> handlerFor(Stream& stream) {
    auto handler = std::make_shared<SocketEventHandler>(
            FileDescriptor(fcntl(stream.end.get(), F_DUPFD_CLOEXEC, 0), 0), EventType::READ);
    SocketEventHandler* self = handler.get();  // owns the runnable
    handler->setRunnable(std::make_shared<FunctionRunnable>([self, &stream] {
        Message message;
        if (!readable(self->fd())) {
            return;
        }
        if (self->receiveMessage(&message) != 0) {
            ADD_FAILURE() << "a receive failed";
            return;
        }
        for (int fd : message.payload().fds) {
            close(fd);
        }
        if (message.type() == kEnd) {
            stream.announced = message.id();
            stream.ended = true;
        } else {
            stream.ids.push_back(message.id());
            ++stream.received;
        }
    }));
    return handler;
}

// The writing peer: numbered messages round-robin over the streams, every
// fourth with a descriptor, until a byte arrives on `stop`; then an end
// message per stream with the count sent on it; then it waits for the end of
// `stop` before it leaves, so that no hang-up reaches the reactor early.
int writeUntilStopped(std::array<Stream, kStreams>& streams, int stop) {
    std::array<UnixDomainSocket, kStreams> sockets;
    for (size_t i = 0; i < kStreams; ++i) {
        sockets[i].bind(std::move(streams[i].peer));
        streams[i].end = FileDescriptor();
    }
    const FileDescriptor devNull(open("/dev/null", O_RDONLY | O_CLOEXEC), 0);
    std::array<uint32_t, kStreams> sent{};
    for (size_t turn = 0; !readable(stop); ++turn) {
        const size_t i = turn % kStreams;
        if (sockets[i].send(numbered(kData, sent[i], sent[i] % 4 == 0 ? devNull.get() : -1)) != 0) {
            return 1;
        }
        ++sent[i];
    }
    for (size_t i = 0; i < kStreams; ++i) {
        if (sockets[i].send(numbered(kEnd, sent[i], -1)) != 0) {
            return 2;
        }
    }
    char byte;
    while (read(stop, &byte, 1) > 0) {
    }
    return 0;
}

// Each stream's thread replaces the stream's handler again and again:
// sometimes the old one goes first, sometimes the new one is registered while
// the old one still is; the old one is removed or merely dropped (its entry
// expires). A new handler's descriptor may reuse the number of one that
// expired but is still listed: it registers once the reactor's next cycle has
// pruned that entry. Every round waits for one more message to arrive.
TEST(ReactorStress, HandlersComeAndGoWhileAPeerProcessWritesAndTheLoopRuns) {
    ScopedLeakCheck leaks;
    std::array<Stream, kStreams> streams;
    for (Stream& stream : streams) {
        SocketPair pair = makePair();
        stream.end = std::move(pair.first);
        stream.peer = std::move(pair.second);
    }
    int stopPipe[2];
    ASSERT_EQ(pipe2(stopPipe, O_CLOEXEC), 0);
    FileDescriptor stopRead(stopPipe[0], 0);
    FileDescriptor stopWrite(stopPipe[1], 0);

    // Forked before any thread starts.
    const pid_t writer = forkPeer(
            [&] {
                stopWrite = FileDescriptor();
                return writeUntilStopped(streams, stopRead.get());
            },
            120);
    stopRead = FileDescriptor();
    for (Stream& stream : streams) {
        stream.peer = FileDescriptor();
    }
    {
        Watchdog watchdog("reactor stress", 120s);
        DefaultReactor reactor;
        ReactorThread loop(reactor, 10ms);
        std::array<std::shared_ptr<SocketEventHandler>, kStreams> lastHandlers;
        std::vector<std::thread> churners;
        for (size_t i = 0; i < kStreams; ++i) {
            churners.emplace_back([&, i] {
                Stream& stream = streams[i];
                std::shared_ptr<SocketEventHandler> current;
                auto retire = [&](int round) {
                    if (current && round % 3 == 0) {
                        EXPECT_TRUE(reactor.removeEventHandler(current));
                    }
                    current.reset();
                };
                for (int round = 0; round < kChurnRounds; ++round) {
                    std::shared_ptr<SocketEventHandler> next = handlerFor(stream);
                    if (round % 2 == 0) {
                        retire(round);
                    }
                    bool ok = waitUntil([&] { return reactor.registerEventHandler(next); });
                    if (ok) {
                        retire(round);
                        current = std::move(next);
                        const int seen = stream.received.load();
                        ok = waitUntil([&] { return stream.received.load() > seen; });
                    }
                    if (!ok) {
                        ADD_FAILURE() << "stream " << i << " stalled in round " << round;
                        break;
                    }
                }
                lastHandlers[i] = std::move(current);
            });
        }
        for (std::thread& churner : churners) {
            churner.join();
        }
        EXPECT_EQ(write(stopWrite.get(), "s", 1), 1);
        EXPECT_TRUE(waitUntil(
                [&] {
                    return std::all_of(streams.begin(), streams.end(),
                                       [](const Stream& stream) { return stream.ended.load(); });
                },
                60s));
    }
    stopWrite = FileDescriptor();  // the writer leaves at the end of the pipe
    EXPECT_EQ(waitPeer(writer, 60), 0);

    for (size_t i = 0; i < kStreams; ++i) {
        const Stream& stream = streams[i];
        SCOPED_TRACE(testing::Message() << "stream " << i);
        EXPECT_GE(stream.announced, static_cast<uint32_t>(kChurnRounds));
        ASSERT_EQ(stream.ids.size(), stream.announced);
        for (uint32_t n = 0; n < stream.announced; ++n) {
            ASSERT_EQ(stream.ids[n], n);
        }
    }
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
        auto message = std::make_unique<Message>(tally);
        message->setHeader(id, type, 0, 0, 0);
        loop.messageQueue().enqueueMessage(std::move(message), 0ms);
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
            if (socket.send(numbered(kData, n, devNull.get())) != 0) {
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
        uint32_t carried = ~0u;
        ASSERT_EQ(payload.data.size(), sizeof(carried));
        std::memcpy(&carried, payload.data.data(), sizeof(carried));
        EXPECT_EQ(message.id(), n);
        EXPECT_EQ(carried, n);
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
