// Counters and state dumps: a scripted scenario drives each counted object
// and checks every figure; the dumps of the same objects are read back.
#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ipc/CBRegistry.h>
#include <ipc/DefaultReactor.h>
#include <ipc/Message.h>
#include <ipc/MessageHandler.h>
#include <ipc/MessageLoop.h>
#include <ipc/StateDump.h>
#include <ipc/Statistics.h>
#include <ipc/UnixDomainSocket.h>
#include <unistd.h>

#include <iterator>
#include <string>
#include <tuple>
#include <vector>

#include "support/AnsweringServer.h"
#include "support/Messages.h"
#include "support/SocketPairFixture.h"

namespace velacam::test {
namespace {

using namespace Kestrel::ipc;
using ::testing::HasSubstr;

// Counting is process-wide: on for each case, off after it.
class StatisticsTest : public SocketPairFixture {
  protected:
    StatisticsTest() { Statistics::enable(true); }
    ~StatisticsTest() override { Statistics::enable(false); }
};

// A connection's figures in the order of ConnectionStatistics, refusals last.
std::vector<uint64_t> figuresOf(int fd) {
    const ConnectionStatistics c = Statistics::connection(fd);
    std::vector<uint64_t> figures = {
            c.sentMessages,  c.sentBytes,           c.sentDescriptors, c.receivedMessages,
            c.receivedBytes, c.receivedDescriptors, c.receiveFailures, c.payloadWaitsRanOut,
            c.outOfStep,     c.descriptorsDropped,  c.largestRecord};
    figures.insert(figures.end(), std::begin(c.refused), std::end(c.refused));
    return figures;
}

std::string dumpOf(const std::function<int(int)>& write) {
    FileDescriptor out = memoryFile();
    EXPECT_EQ(write(out.get()), 0);
    return contentsOf(out.get());
}

TEST_F(StatisticsTest, Connection_ScriptedTraffic_CountsEveryFigure) {
    UnixDomainSocket sender;
    UnixDomainSocket receiver;
    sender.bind(std::move(pair.second));
    receiver.bind(std::move(pair.first));
    receiver.setPayloadTimeout(std::chrono::milliseconds(50));

    // Two messages go (10 bytes and two descriptors, then nothing); two are
    // refused before anything is sent.
    EXPECT_EQ(sender.send(*makeMessage(1, std::vector<uint8_t>(10, 7), {file.get(), file.get()})),
              0);
    EXPECT_EQ(sender.send(*makeMessage(2)), 0);
    EXPECT_EQ(sender.send(*makeMessage(3, {}, std::vector<int>(254, file.get()))), -EINVAL);
    EXPECT_EQ(sender.send(*makeMessage(4, std::vector<uint8_t>(300000))), -EMSGSIZE);

    for (int i = 0; i < 2; ++i) {
        Message received;
        ASSERT_EQ(receiver.recv(&received), 0);
        MessageHandler().handleMessage(received);  // closes its descriptors
    }
    // A peer that sends three descriptors where one was announced: all three
    // are closed. Then a header whose payload never comes.
    ASSERT_TRUE(writeHeaderRecord(far, 5, 0, 1));
    ASSERT_EQ(writeRecord(far, nullptr, 0, {file.get(), file.get(), file.get()}), 0);
    Message refused;
    EXPECT_EQ(receiver.recv(&refused), -EMSGSIZE);
    ASSERT_TRUE(writeHeaderRecord(far, 6, 4, 0));
    Message stalled;
    EXPECT_EQ(receiver.recv(&stalled), -ECONNABORTED);

    // Refused: one with too many descriptors, one too large.
    EXPECT_EQ(figuresOf(far),
              (std::vector<uint64_t>{2, 10, 2, 0, 0, 0, 0, 0, 0, 0, 10, 1, 1, 0, 0, 0, 0, 0}));
    EXPECT_EQ(figuresOf(near),
              (std::vector<uint64_t>{0, 0, 0, 2, 10, 2, 2, 1, 1, 3, 10, 0, 0, 0, 0, 0, 0, 0}));
    const std::string dump = dumpOf([&](int out) { return StateDump::writeConnection(out, near); });
    EXPECT_THAT(dump, HasSubstr("received 2 messages, 10 bytes, 2 fds"));
    EXPECT_THAT(dump, HasSubstr("out of step 1, fds dropped 3"));

    // Counting off: nothing moves. A socket bound again to the number starts from zero.
    Statistics::enable(false);
    EXPECT_EQ(sender.send(*makeMessage(7)), 0);
    EXPECT_EQ(Statistics::connection(far).sentMessages, 2u);
    Message drained;
    EXPECT_EQ(receiver.recv(&drained), 0);
    Kestrel::ipc::SocketPair again = UnixDomainSocket::createPairedSocket(4096, 4096, false);
    ASSERT_EQ(::dup2(again.first.get(), far), far);
    UnixDomainSocket rebound;
    sender.bind(FileDescriptor());  // gives up `far` (closing it) before it is bound again
    rebound.bind(FileDescriptor(far, 0));
    EXPECT_EQ(figuresOf(far), std::vector<uint64_t>(18, 0));
}

TEST_F(StatisticsTest, ReactorLoopRegistry_ScriptedRoundTrips_CountEveryFigure) {
    AnsweringServer server(std::move(pair.first));
    UnixDomainSocket client;
    client.bind(std::move(pair.second));
    ASSERT_TRUE(server.start());
    DefaultReactor& reactor = server.reactor();
    MessageLoop& loop = server.loop();

    // Three round trips, one at a time; a fourth request is registered and
    // never sent, twice (the second registration is refused).
    CBRegistry registry(1);
    std::vector<uint8_t> statuses;
    for (uint32_t id = 1; id <= 3; ++id) {
        roundTrip(client, registry, id, 7,
                  [&statuses](uint8_t status) { statuses.push_back(status); });
    }
    EXPECT_EQ(statuses, std::vector<uint8_t>({0, 0, 0}));
    auto unanswered = makeMessage(99);
    registry.registerCB(*unanswered, [](uint8_t) {});
    registry.registerCB(*unanswered, [](uint8_t) {});

    const auto registryFigures = Statistics::of(registry);
    EXPECT_EQ(std::make_tuple(registryFigures.registered, registryFigures.replied,
                              registryFigures.pending),
              std::make_tuple(4u, 3u, 1u));
    EXPECT_GT(registryFigures.oldestPendingAge.count(), 0);
    const std::string registryDump =
            dumpOf([&](int out) { return StateDump::write(out, registry); });
    EXPECT_THAT(registryDump, HasSubstr("registered 4, replied 3, pending 1"));
    EXPECT_THAT(registryDump, HasSubstr("callbacks waiting: 1\n    ids 99\n"));

    // While the reactor runs: its registered handler and that connection
    // (whose last reply is counted once the loop's send has returned).
    ASSERT_TRUE(waitUntil([&] { return Statistics::connection(near).sentMessages == 3; }));
    const std::string reactorDump = dumpOf([&](int out) { return StateDump::write(out, reactor); });
    EXPECT_THAT(reactorDump, HasSubstr("registered handlers: 1\n    fd " + std::to_string(near) +
                                       ": read\n      sent 3 messages, 3 bytes, 0 fds; received 3 "
                                       "messages, 12 bytes, 0 fds"));

    // The client goes: one hang-up, after which the listener ends the loop.
    client.bind(FileDescriptor());
    ASSERT_TRUE(server.waitForHangUp(std::chrono::seconds(10)));

    const auto reactorFigures = Statistics::of(reactor);
    // Cycles: three requests, the hang-up, the exit.
    EXPECT_EQ(std::make_tuple(reactorFigures.cycles, reactorFigures.dispatches,
                              reactorFigures.hangUps),
              std::make_tuple(5u, 3u, 1u));
    EXPECT_GT(reactorFigures.longestHandlerRun.count(), 0);

    const auto loopFigures = Statistics::of(loop);
    EXPECT_EQ(std::make_tuple(loopFigures.enqueued, loopFigures.dispatched, loopFigures.highWater),
              std::make_tuple(3u, 3u, 1u));
    EXPECT_GT(loopFigures.delayP50.count(), 0);
    EXPECT_LE(loopFigures.delayP50, loopFigures.delayP99);
    EXPECT_LE(loopFigures.delayP99, loopFigures.delayMax);
    const std::string loopDump = dumpOf([&](int out) { return StateDump::write(out, loop); });
    EXPECT_THAT(loopDump, HasSubstr("enqueued 3, dispatched 3, waiting 0, high-water 1"));
    EXPECT_THAT(loopDump, HasSubstr("slow-dispatch warning off"));

    EXPECT_EQ(figuresOf(near),
              (std::vector<uint64_t>{3, 3, 0, 3, 12, 0, 0, 0, 0, 0, 4, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(StatisticsTest, Objects_DestroyedAndMadeAgain_StartFromZero) {
    for (int round = 0; round < 2; ++round) {
        auto registry = std::make_unique<CBRegistry>(1);
        registry->registerCB(*makeMessage(1), [](uint8_t) {});
        EXPECT_EQ(Statistics::of(*registry).registered, 1u);
        auto loop = std::make_unique<MessageLoop>();
        loop->messageQueue().enqueueMessage(makeMessage(1), std::chrono::milliseconds(0));
        EXPECT_EQ(Statistics::of(*loop).enqueued, 1u);
    }
}

}  // namespace
}  // namespace velacam::test
