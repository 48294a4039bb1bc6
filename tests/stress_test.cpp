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
#include <ipc/EventHandler.h>
#include <ipc/Message.h>
#include <ipc/MessageHandler.h>
#include <ipc/MessageLoop.h>
#include <ipc/SocketEventHandler.h>
#include <ipc/UnixDomainSocket.h>
#include <ipc/utils/Process.h>
#include <ipc/utils/Runnable.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <sysutils/FileDescriptor.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <future>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include "support/Descriptors.h"
#include "support/RawPeer.h"
#include "support/ReactorThread.h"
#include "support/Waiting.h"

namespace {

using namespace Kestrel::ipc;
using namespace Kestrel::ipc::utils;
using namespace velacam::test;

constexpr uint32_t kData = 1;
constexpr uint32_t kEnd = 2;

FileDescriptor duplicate(int fd) { return FileDescriptor(fcntl(fd, F_DUPFD_CLOEXEC, 0), 0); }

SocketPair makePair() {
    SocketPair pair = UnixDomainSocket::createPairedSocket(65536, 65536, false);
    EXPECT_GE(pair.first.get(), 0);
    return pair;
}

// A message of `type` whose id is `id`, carrying the id as its 4 data bytes
// and, when `fd` is not negative, that descriptor.
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

// What arrived on one socket; written by the reactor's thread only, except
// the counters, which the churning threads read.
struct Stream {
    FileDescriptor end;  // the receiving end; each handler watches a duplicate
    FileDescriptor peer;
    std::vector<uint32_t> ids;  // data messages in arrival order
    uint32_t announced = 0;     // the count the end message gave
    std::atomic<int> received{0};
    std::atomic<bool> ended{false};
    std::atomic<int> failures{0};
};

// Installed in every handler of a stream: receives one message when one is
// queued (another handler of the same socket may have taken it in the same
// cycle), closes the descriptor it carried and records its id.
class ReceiveOne : public Runnable {
  public:
    ReceiveOne(SocketEventHandler& handler, Stream& stream) : mHandler(handler), mStream(stream) {}

    void run() override {
        if (!readable(mHandler.fd())) {
            return;
        }
        Message message;
        if (mHandler.receiveMessage(&message) != 0) {
            ++mStream.failures;
            return;
        }
        for (int fd : message.payload().fds) {
            close(fd);
        }
        if (message.type() == kEnd) {
            mStream.announced = message.id();
            mStream.ended = true;
            return;
        }
        mStream.ids.push_back(message.id());
        ++mStream.received;
    }

  private:
    SocketEventHandler& mHandler;  // owns this runnable
    Stream& mStream;
};

std::shared_ptr<SocketEventHandler> handlerFor(Stream& stream) {
    auto handler =
            std::make_shared<SocketEventHandler>(duplicate(stream.end.get()), EventType::READ);
    handler->setRunnable(std::make_shared<ReceiveOne>(*handler, stream));
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
        const int fd = sent[i] % 4 == 0 ? devNull.get() : -1;
        if (sockets[i].send(numbered(kData, sent[i], fd)) != 0) {
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

// Runs the reactor while each stream's thread replaces the stream's handler
// again and again: sometimes the old one goes first, sometimes the new one is
// registered while the old one still is; the old one is removed or merely
// dropped (its entry expires). A new handler's descriptor may reuse the number
// of one that expired but is still listed: it registers once the reactor's
// next cycle has pruned that entry. Then stops the writer and drains.
void churnHandlersWhileReceiving(std::array<Stream, kStreams>& streams, int stopWriter) {
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
                if (!waitUntil([&] { return reactor.registerEventHandler(next); })) {
                    ADD_FAILURE() << "stream " << i << " could not register in round " << round;
                    break;
                }
                retire(round);
                current = std::move(next);
                const int seen = stream.received.load();
                if (!waitUntil([&] { return stream.received.load() > seen; })) {
                    ADD_FAILURE() << "stream " << i << " got nothing in round " << round;
                    break;
                }
            }
            lastHandlers[i] = std::move(current);
        });
    }
    for (std::thread& churner : churners) {
        churner.join();
    }

    EXPECT_EQ(write(stopWriter, "s", 1), 1);
    EXPECT_TRUE(waitUntil(
            [&] {
                for (const Stream& stream : streams) {
                    if (!stream.ended.load()) {
                        return false;
                    }
                }
                return true;
            },
            60s));
}

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
        churnHandlersWhileReceiving(streams, stopWrite.get());
    }
    stopWrite = FileDescriptor();  // the writer leaves at the end of the pipe
    EXPECT_EQ(waitPeer(writer, 60), 0);

    for (size_t i = 0; i < kStreams; ++i) {
        const Stream& stream = streams[i];
        EXPECT_EQ(stream.failures.load(), 0) << "stream " << i;
        EXPECT_GE(stream.announced, static_cast<uint32_t>(kChurnRounds)) << "stream " << i;
        ASSERT_EQ(stream.ids.size(), stream.announced) << "stream " << i;
        for (uint32_t n = 0; n < stream.announced; ++n) {
            ASSERT_EQ(stream.ids[n], n) << "stream " << i;
        }
    }
}

// ---------------------------------------------------------------------------
// Eight producers feeding one message loop.

constexpr int kProducers = 8;
constexpr uint32_t kMessagesPerProducer = 25000;
constexpr uint32_t kProducerShift = 24;

// Counts, on the loop's thread, what each producer's messages were; the last
// message, of type kEnd, ends the loop.
class Tally : public MessageHandler {
  public:
    explicit Tally(MessageLoop& loop) : mLoop(loop) {}

    using MessageHandler::handleMessage;
    void handleMessage(std::unique_ptr<Message> message) override {
        if (message->type() == kEnd) {
            mLoop.requestExit();
            return;
        }
        const uint32_t producer = message->id() >> kProducerShift;
        const uint32_t sequence = message->id() & ((1u << kProducerShift) - 1);
        if (producer >= next.size() || sequence != next[producer]) {
            ++outOfOrder;
            return;
        }
        ++next[producer];
        ++total;
    }

    // Read after the loop's thread has been joined.
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

    std::promise<void> go;
    std::shared_future<void> start = go.get_future().share();
    std::vector<std::thread> producers;
    for (uint32_t p = 0; p < kProducers; ++p) {
        producers.emplace_back([&, p] {
            start.wait();
            for (uint32_t n = 0; n < kMessagesPerProducer; ++n) {
                auto message = std::make_unique<Message>(tally);
                message->setHeader((p << kProducerShift) | n, kData, 0, 0, 0);
                loop.messageQueue().enqueueMessage(std::move(message), 0ms);
            }
        });
    }
    go.set_value();
    for (std::thread& producer : producers) {
        producer.join();
    }
    auto last = std::make_unique<Message>(tally);
    last->setHeader(0, kEnd, 0, 0, 0);
    loop.messageQueue().enqueueMessage(std::move(last), 0ms);
    consumer.join();

    EXPECT_EQ(tally->outOfOrder, 0u);
    EXPECT_EQ(tally->total, kProducers * kMessagesPerProducer);
    for (uint32_t p = 0; p < kProducers; ++p) {
        EXPECT_EQ(tally->next[p], kMessagesPerProducer) << "producer " << p;
    }
}

// ---------------------------------------------------------------------------
// Two hundred children started, observed and terminated.

constexpr int kChildren = 200;
constexpr int kTerminatedOneByOne = 20;

TEST(ProcessStress, TwoHundredChildrenAreStartedObservedAndTerminatedWithNoneLeft) {
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

    // Observed in the order they were started, each one there to signal.
    std::vector<int> observed;
    for (const Process& child : parent.children()) {
        observed.push_back(child.pid());
    }
    EXPECT_EQ(observed, pids);
    for (int pid : pids) {
        EXPECT_EQ(kill(pid, 0), 0) << pid;
    }

    // A few are terminated one by one and taken out of observation; the
    // rest all at once.
    for (int i = 0; i < kTerminatedOneByOne; ++i) {
        EXPECT_TRUE(Process(pids[i]).terminate());
        parent.removeFromObservation(pids[i]);
    }
    EXPECT_EQ(parent.children().size(), static_cast<size_t>(kChildren - kTerminatedOneByOne));
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
// Peers that close in the middle of a message.

constexpr size_t kClosingPeers = 64;
constexpr int kReceivers = 4;
constexpr int kClosingRounds = 6;
constexpr uint32_t kAnnouncedData = 5;

// Socket `i` first gets i % 4 whole messages, then a header announcing 5
// data bytes and (i % 2) descriptors, and no payload record.
uint32_t wholeMessagesOn(size_t i) { return static_cast<uint32_t>(i % 4); }
uint16_t announcedDescriptorsOn(size_t i) { return static_cast<uint16_t>(i % 2); }

// The closing peer: its ends in order, each closed right after the header.
int writeAndCloseMidMessage(std::vector<SocketPair>& pairs) {
    const FileDescriptor devNull(open("/dev/null", O_RDONLY | O_CLOEXEC), 0);
    for (size_t i = 0; i < pairs.size(); ++i) {
        pairs[i].first = FileDescriptor();
        UnixDomainSocket socket;
        socket.bind(std::move(pairs[i].second));
        for (uint32_t n = 0; n < wholeMessagesOn(i); ++n) {
            if (socket.send(numbered(kData, n, devNull.get())) != 0) {
                return 1;
            }
        }
        Message cut;
        cut.setHeader(99, kData, 0, kAnnouncedData, announcedDescriptorsOn(i));
        const auto [header, size] = cut.header();
        if (socket.sendDataAndFileDescriptors(nullptr, 0, header, size) != 0) {
            return 2;
        }
    }
    return 0;
}

// What one receiver found on one socket, checked on the test's thread.
struct Reading {
    uint32_t wholeOk = 0;
    int cutResult = 1;
    uint32_t cutDataCount = 0;
    bool cutPayloadZero = false;
    int afterResult = 1;
    bool afterEmpty = false;
};

Reading readUntilTheCut(UnixDomainSocket& socket, size_t i) {
    Reading reading;
    for (uint32_t n = 0; n < wholeMessagesOn(i); ++n) {
        Message message;
        if (socket.recv(&message) != 0) {
            return reading;
        }
        const Message::Payload payload = message.payload();
        for (int fd : payload.fds) {
            close(fd);
        }
        uint32_t carried = ~0u;
        if (payload.data.size() == sizeof(carried)) {
            std::memcpy(&carried, payload.data.data(), sizeof(carried));
        }
        if (message.id() == n && carried == n && payload.fds.size() == 1) {
            ++reading.wholeOk;
        }
    }
    Message cut;
    reading.cutResult = socket.recv(&cut);
    reading.cutDataCount = cut.dataCount();
    if (reading.cutResult == 0) {
        const Message::Payload payload = cut.payload();
        reading.cutPayloadZero = payload.data == std::vector<uint8_t>(kAnnouncedData, 0);
    }
    // End of stream is not detected: it reads as an empty message.
    Message after;
    reading.afterResult = socket.recv(&after);
    reading.afterEmpty = after.dataCount() == 0 && after.fileDescriptorCount() == 0;
    return reading;
}

TEST(TransportStress, PeersClosingAfterTheHeaderRecord_FailOrEndTheMessageAndLeaveNothingOpen) {
    ScopedLeakCheck leaks;
    for (int round = 0; round < kClosingRounds; ++round) {
        std::vector<SocketPair> pairs;
        pairs.reserve(kClosingPeers);
        for (size_t i = 0; i < kClosingPeers; ++i) {
            pairs.push_back(makePair());
        }
        const pid_t peer = forkPeer([&] { return writeAndCloseMidMessage(pairs); });
        std::vector<UnixDomainSocket> sockets(kClosingPeers);
        for (size_t i = 0; i < kClosingPeers; ++i) {
            pairs[i].second = FileDescriptor();
            sockets[i].bind(std::move(pairs[i].first));
        }

        std::vector<Reading> readings(kClosingPeers);
        {
            Watchdog watchdog("closing peers", 60s);
            std::vector<std::thread> receivers;
            for (int r = 0; r < kReceivers; ++r) {
                receivers.emplace_back([&, r] {
                    for (size_t i = r; i < kClosingPeers; i += kReceivers) {
                        readings[i] = readUntilTheCut(sockets[i], i);
                    }
                });
            }
            for (std::thread& receiver : receivers) {
                receiver.join();
            }
        }
        EXPECT_EQ(waitPeer(peer, 60), 0);

        for (size_t i = 0; i < kClosingPeers; ++i) {
            const Reading& reading = readings[i];
            SCOPED_TRACE(testing::Message() << "round " << round << ", socket " << i);
            EXPECT_EQ(reading.wholeOk, wholeMessagesOn(i));
            EXPECT_EQ(reading.cutDataCount, kAnnouncedData);
            if (announcedDescriptorsOn(i) != 0) {
                EXPECT_EQ(reading.cutResult, -ENODATA);  // the descriptors never came
            } else {
                EXPECT_EQ(reading.cutResult, 0);  // the data reads as zeros
                EXPECT_TRUE(reading.cutPayloadZero);
            }
            EXPECT_EQ(reading.afterResult, 0);
            EXPECT_TRUE(reading.afterEmpty);
        }
    }
}

}  // namespace
