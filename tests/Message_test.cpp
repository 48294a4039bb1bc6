#include <fcntl.h>
#include <gtest/gtest.h>
#include <ipc/Message.h>
#include <ipc/MessageHandler.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <numeric>
#include <thread>
#include <tuple>
#include <vector>

#include "support/Descriptors.h"
#include "support/LogCapture.h"
#include "support/Messages.h"
#include "support/Waiting.h"

namespace {

using namespace Kestrel::ipc;
using namespace velacam::test;
using Bytes = std::vector<uint8_t>;

Bytes storageOf(const Message& message, size_t size) {
    const auto [bytes, headerSize] = message.header();
    EXPECT_EQ(headerSize, 24u);
    return Bytes(bytes, bytes + size);
}

TEST(MessageHeader, FieldsSitAtTheirOffsetsAndNoSetterWritesTheReservedBytes) {
    Message message;
    EXPECT_EQ(storageOf(message, 24), Bytes(24, 0));
    auto [writable, size] = message.header();
    std::memset(writable + 18, 0x5A, size - 18);  // as a peer's reserved bytes would arrive
    message.setHeader(0x11223344, 0x55667788, 3, 0x0A0B0C0D, 0xBEEF);
    EXPECT_EQ(storageOf(message, 24),
              (Bytes{0x44, 0x33, 0x22, 0x11, 0x88, 0x77, 0x66, 0x55, 3,    0,    0,    0,
                     0x0D, 0x0C, 0x0B, 0x0A, 0xEF, 0xBE, 0x5A, 0x5A, 0x5A, 0x5A, 0x5A, 0x5A}));
    EXPECT_TRUE(message.isAsync() && message.isReply());
    EXPECT_EQ(message.clearFlags(), 3u);
    EXPECT_FALSE(message.isAsync() || message.isReply());

    message.setHeader(5, 2);  // resets id, type and flags
    EXPECT_EQ(std::make_tuple(message.id(), message.type(), message.flags(), message.dataCount(),
                              message.fileDescriptorCount()),
              std::make_tuple(0u, 0u, 0u, 5u, uint16_t{2}));
    Bytes incoming(24);
    std::iota(incoming.begin(), incoming.end(), uint8_t{1});
    message.setHeader(incoming);  // copies bytes 0 to 17 only
    std::fill(incoming.begin() + 18, incoming.end(), 0x5A);
    EXPECT_EQ(storageOf(message, 24), incoming);
}

TEST(MessagePayload, PacksDataThenUnalignedDescriptorsAndEmptyingKeepsTheCounts) {
    const auto message = makeMessage(1, {0xA1, 0xA2, 0xA3}, {70000, -5});
    EXPECT_EQ(message->dataCount(), 3u);
    EXPECT_EQ(message->fileDescriptorCount(), 2u);
    const Bytes bytes = storageOf(*message, 35);  // 70000 and -5 as unaligned 4-byte integers
    EXPECT_EQ(Bytes(bytes.begin() + 24, bytes.end()),
              (Bytes{0xA1, 0xA2, 0xA3, 0x70, 0x11, 0x01, 0x00, 0xFB, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(message->payload().fds, (std::vector<int>{70000, -5}));

    message->setHeader(1000, 50);  // a header that overstates its payload
    EXPECT_EQ(message->payload().data.size(), 11u);
    EXPECT_TRUE(message->payload().fds.empty());
    message->setPayload(Message::Payload());
    EXPECT_EQ(message->dataCount(), 1000u);
    EXPECT_TRUE(message->payload().data.empty());
}

TEST(MessageMove, ConstructionTakesTheHandlerAndAssignmentSwapsThem) {
    auto first = std::make_shared<MessageHandler>();
    auto second = std::make_shared<MessageHandler>();
    Message a(first);
    a.setHeader(42, 1, 0, 0, 0);
    Message b(std::move(a));
    EXPECT_EQ(b.id(), 42u);
    EXPECT_EQ(b.messageHandler(), first);
    EXPECT_EQ(a.messageHandler(), nullptr);  // NOLINT(bugprone-use-after-move): the contract
    Message c(second);
    c.setHeader(9, 0, 0, 0, 0);
    b = std::move(c);
    EXPECT_EQ(b.id(), 9u);
    EXPECT_EQ(b.messageHandler(), second);
    EXPECT_EQ(c.messageHandler(), first);  // NOLINT(bugprone-use-after-move): the contract

    // Assignment locks both messages: crossed assignments must not deadlock.
    Watchdog watchdog("cross move assignment", 30s);
    std::thread t([&] {
        for (int i = 0; i < 2000; ++i) {
            b = std::move(c);
            c = std::move(b);
        }
    });
    for (int i = 0; i < 2000; ++i) {
        c = std::move(b);
        b = std::move(c);
    }
    t.join();
}

TEST(MessageResponse, ReturnsAtOnceOnASetReplyBitAndAfterAboutOneSecondOtherwise) {
    LogCapture capture;
    Message message;
    message.setHeader(77, 0, Message::kFlagReply, 0, 0);
    {
        Watchdog watchdog("waitResponse", 900ms);
        message.waitResponse();
    }
    EXPECT_EQ(capture.count("waitResponse timed out, message ID(77) isReply(1)"), 1u);
    message.clearFlags();
    const auto start = std::chrono::steady_clock::now();
    message.waitResponse();
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(elapsed, 990ms);
    EXPECT_LT(elapsed, 10s);
}

TEST(DefaultHandler, ClosesExactlyTheCarriedDescriptorsAndZeroesTheCount) {
    ScopedLeakCheck leaks;
    const int a = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    const int b = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    const int bystander = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    const auto message = makeMessage(3, {1, 2}, {a, b}, nullptr, 9);
    message->setHeader(3, 9, Message::kFlagReply, 2, 2);
    message->messageHandler()->handleMessage(*message);
    EXPECT_TRUE(isOpen(bystander));  // the leak check shows the carried ones closed
    EXPECT_EQ(std::make_tuple(message->id(), message->type(), message->flags(),
                              message->dataCount(), message->fileDescriptorCount()),
              std::make_tuple(0u, 0u, 0u, 2u, uint16_t{0}));
    ::close(bystander);
}

}  // namespace
