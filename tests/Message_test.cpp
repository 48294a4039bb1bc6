// Message and MessageHandler: header layout, packed payload, moves, the reply
// wait and the default handler's disposal of descriptors.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <ipc/Message.h>
#include <ipc/MessageHandler.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "support/Descriptors.h"
#include "support/LogCapture.h"
#include "support/Waiting.h"

namespace {

using Kestrel::ipc::Message;
using Kestrel::ipc::MessageHandler;
using velacam::test::LogCapture;

std::vector<uint8_t> storageOf(const Message& message, size_t size) {
    const auto [bytes, headerSize] = message.header();
    EXPECT_EQ(headerSize, 24u);
    return std::vector<uint8_t>(bytes, bytes + size);
}

uint32_t wordAt(const std::vector<uint8_t>& bytes, size_t offset) {
    uint32_t value;
    std::memcpy(&value, bytes.data() + offset, sizeof(value));
    return value;
}

TEST(MessageHeader, NewMessageHasZeroHeaderAndNoPayload) {
    LogCapture capture;
    Message message;
    EXPECT_EQ(message.id(), 0u);
    EXPECT_EQ(message.type(), 0u);
    EXPECT_EQ(message.flags(), 0u);
    EXPECT_EQ(message.dataCount(), 0u);
    EXPECT_EQ(message.fileDescriptorCount(), 0u);
    EXPECT_EQ(storageOf(message, 24), std::vector<uint8_t>(24, 0));
    const Message::Payload payload = message.payload();
    EXPECT_TRUE(payload.data.empty());
    EXPECT_TRUE(payload.fds.empty());
    EXPECT_EQ(capture.count("no payload exists"), 1u);
    EXPECT_NE(message.messageHandler(), nullptr);
}

TEST(MessageHeader, FieldsSitAtTheirOffsetsInHostOrder) {
    Message message;
    message.setHeader(0x11223344, 0x55667788, 3, 0x0A0B0C0D, 0xBEEF);
    const std::vector<uint8_t> bytes = storageOf(message, 24);
    EXPECT_EQ(wordAt(bytes, 0), 0x11223344u);
    EXPECT_EQ(wordAt(bytes, 4), 0x55667788u);
    EXPECT_EQ(wordAt(bytes, 8), 3u);
    EXPECT_EQ(wordAt(bytes, 12), 0x0A0B0C0Du);
    uint16_t fdCount;
    std::memcpy(&fdCount, bytes.data() + 16, sizeof(fdCount));
    EXPECT_EQ(fdCount, 0xBEEF);
    EXPECT_EQ(std::vector<uint8_t>(bytes.begin() + 18, bytes.end()), std::vector<uint8_t>(6, 0));
    EXPECT_TRUE(message.isAsync());
    EXPECT_TRUE(message.isReply());
    EXPECT_EQ(message.clearFlags(), 3u);
    EXPECT_EQ(message.flags(), 0u);
    EXPECT_FALSE(message.isAsync());
    EXPECT_FALSE(message.isReply());
}

TEST(MessageHeader, TwoArgumentSetHeaderResetsIdTypeAndFlags) {
    Message message;
    message.setHeader(7, 8, 3, 1, 1);
    message.setHeader(5, 2);
    EXPECT_EQ(message.id(), 0u);
    EXPECT_EQ(message.type(), 0u);
    EXPECT_EQ(message.flags(), 0u);
    EXPECT_EQ(message.dataCount(), 5u);
    EXPECT_EQ(message.fileDescriptorCount(), 2u);
}

TEST(MessageHeader, HeaderVectorCopiesEighteenBytesAndKeepsTheReservedOnes) {
    Message message;
    auto [writable, size] = message.header();
    std::memset(writable + 18, 0x5A, size - 18);  // as a peer's reserved bytes would arrive
    std::vector<uint8_t> bytes(24);
    for (size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<uint8_t>(i + 1);
    }
    message.setHeader(bytes);
    const std::vector<uint8_t> stored = storageOf(message, 24);
    EXPECT_EQ(std::vector<uint8_t>(stored.begin(), stored.begin() + 18),
              std::vector<uint8_t>(bytes.begin(), bytes.begin() + 18));
    EXPECT_EQ(std::vector<uint8_t>(stored.begin() + 18, stored.end()),
              std::vector<uint8_t>(6, 0x5A));
}

TEST(MessagePayload, PacksDataThenUnalignedDescriptors) {
    Message message;
    Message::Payload payload;
    payload.data = {0xA1, 0xA2, 0xA3};
    payload.fds = {70000, -5};
    message.setPayload(payload);
    EXPECT_EQ(message.dataCount(), 3u);
    EXPECT_EQ(message.fileDescriptorCount(), 2u);
    const std::vector<uint8_t> bytes = storageOf(message, 35);
    EXPECT_EQ(bytes[24], 0xA1);
    EXPECT_EQ(bytes[26], 0xA3);
    EXPECT_EQ(static_cast<int32_t>(wordAt(bytes, 27)), 70000);
    EXPECT_EQ(static_cast<int32_t>(wordAt(bytes, 31)), -5);
    const Message::Payload back = message.payload();
    EXPECT_EQ(back.data, payload.data);
    EXPECT_EQ(back.fds, payload.fds);
}

TEST(MessagePayload, EmptyPayloadShrinksStorageButKeepsTheCounts) {
    LogCapture capture;
    Message message;
    Message::Payload payload;
    payload.data = {1, 2, 3, 4};
    payload.fds = {9};
    message.setPayload(payload);
    message.setPayload(Message::Payload());
    EXPECT_EQ(message.dataCount(), 4u);
    EXPECT_EQ(message.fileDescriptorCount(), 1u);
    EXPECT_TRUE(message.payload().data.empty());
    EXPECT_EQ(capture.count("no payload exists"), 1u);
    EXPECT_EQ(capture.count("[setPayload] adjust storage size from 24 to 32"), 1u);
    EXPECT_EQ(capture.count("[setPayload] adjust storage size from 32 to 24"), 1u);
}

TEST(MessagePayload, CountsBeyondTheStorageAreClippedToWhatIsThere) {
    Message message;
    Message::Payload payload;
    payload.data = {1, 2};
    message.setPayload(payload);
    message.setHeader(1000, 50);  // a header that overstates its payload
    const Message::Payload back = message.payload();
    EXPECT_EQ(back.data, (std::vector<uint8_t>{1, 2}));
    EXPECT_TRUE(back.fds.empty());
}

TEST(MessagePayload, UnpackingLogsTheBlockSizes) {
    LogCapture capture;
    const uint8_t packed[] = {1, 2, 3, 4, 5, 0, 0, 0, 6, 0, 0, 0};
    const Message::Payload payload(packed, 4, 2);
    EXPECT_EQ(payload.data, (std::vector<uint8_t>{1, 2, 3, 4}));
    EXPECT_EQ(payload.fds, (std::vector<int>{5, 6}));
    EXPECT_EQ(capture.count("[Payload] data_offset(4)"), 1u);
    EXPECT_EQ(capture.count("[Payload] fds_offset(8)"), 1u);
}

TEST(MessageMove, ConstructorTakesStorageAndHandler) {
    auto handler = std::make_shared<MessageHandler>();
    Message a(handler);
    a.setHeader(42, 1, 0, 0, 0);
    Message b(std::move(a));
    EXPECT_EQ(b.id(), 42u);
    EXPECT_EQ(b.messageHandler(), handler);
    EXPECT_EQ(a.messageHandler(), nullptr);  // NOLINT(bugprone-use-after-move): the contract
}

TEST(MessageMove, AssignmentSwapsHandlers) {
    auto first = std::make_shared<MessageHandler>();
    auto second = std::make_shared<MessageHandler>();
    Message b(first);
    Message c(second);
    c.setHeader(9, 0, 0, 0, 0);
    b = std::move(c);
    EXPECT_EQ(b.id(), 9u);
    EXPECT_EQ(b.messageHandler(), second);
    EXPECT_EQ(c.messageHandler(), first);  // NOLINT(bugprone-use-after-move): the contract
}

TEST(MessageMove, ConcurrentCrossAssignmentsDoNotDeadlock) {
    velacam::test::Watchdog watchdog("cross move assignment", std::chrono::seconds(30));
    Message a;
    Message b;
    a.setHeader(1, 0, 0, 0, 0);
    b.setHeader(2, 0, 0, 0, 0);
    std::thread t([&] {
        for (int i = 0; i < 2000; ++i) {
            a = std::move(b);
            b = std::move(a);
        }
    });
    for (int i = 0; i < 2000; ++i) {
        b = std::move(a);
        a = std::move(b);
    }
    t.join();
}

TEST(MessageHandlerChange, ReplacingAHandlerWarnsWithItsAddress) {
    LogCapture capture;
    Message message;
    const auto old = reinterpret_cast<unsigned long>(message.messageHandler().get());
    message.setMessageHandler(nullptr);
    char expected[64];
    std::snprintf(expected, sizeof(expected), "message handler(0x%lx) is going to be removed", old);
    EXPECT_EQ(capture.count(expected), 1u);
    EXPECT_EQ(message.messageHandler(), nullptr);
}

TEST(MessageResponse, ReturnsAtOnceWhenTheReplyBitIsSet) {
    LogCapture capture;
    Message message;
    message.setHeader(77, 0, Message::kFlagReply, 0, 0);
    velacam::test::Watchdog watchdog("waitResponse", std::chrono::milliseconds(900));
    message.waitResponse();
    EXPECT_EQ(capture.count("waitResponse timed out, message ID(77) isReply(1)"), 1u);
}

TEST(MessageResponse, GivesUpAfterAboutOneSecondWithoutAReply) {
    Message message;
    const auto start = std::chrono::steady_clock::now();
    message.waitResponse();
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(elapsed, std::chrono::milliseconds(990));
    EXPECT_LT(elapsed, std::chrono::seconds(10));
    EXPECT_FALSE(message.isReply());
}

TEST(MessageResponse, WakesWhenAnotherThreadSignalsTheReply) {
    Message message;
    message.setHeader(5, 0, 0, 0, 0);
    std::thread replier([&] {
        message.setHeader(5, 0, Message::kFlagReply, 0, 0);
        message.signalResponse();
    });
    message.waitResponse();
    replier.join();
    EXPECT_TRUE(message.isReply());
}

class DefaultHandler : public ::testing::Test {
  protected:
    void TearDown() override { leaks.check(); }
    velacam::test::DescriptorLeakCheck leaks;
};

TEST_F(DefaultHandler, ClosesExactlyTheCarriedDescriptorsInOrder) {
    LogCapture capture;
    const int a = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    const int b = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    const int bystander = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    auto message = std::make_unique<Message>();
    Message::Payload payload;
    payload.data = {1, 2};
    payload.fds = {a, b};
    message->setPayload(payload);
    message->setHeader(3, 4, 1, 2, 2);
    Message& kept = *message;
    MessageHandler().handleMessage(kept);
    EXPECT_FALSE(velacam::test::isOpen(a));
    EXPECT_FALSE(velacam::test::isOpen(b));
    EXPECT_TRUE(velacam::test::isOpen(bystander));
    EXPECT_EQ(kept.fileDescriptorCount(), 0u);
    EXPECT_EQ(kept.dataCount(), 2u);
    EXPECT_EQ(kept.id(), 0u);
    EXPECT_EQ(kept.type(), 0u);
    EXPECT_EQ(kept.flags(), 0u);
    const std::vector<velacam::test::LogLine> lines = capture.lines();
    std::vector<std::string> closes;
    for (const auto& line : lines) {
        if (line.text.rfind("[operator()] close fd(", 0) == 0) {
            closes.push_back(line.text);
        }
    }
    EXPECT_EQ(closes,
              (std::vector<std::string>{"[operator()] close fd(" + std::to_string(a) + ")",
                                        "[operator()] close fd(" + std::to_string(b) + ")"}));
    ::close(bystander);
}

TEST_F(DefaultHandler, HeaderOnlyMessageClosesNothingAndZeroesTheCount) {
    LogCapture capture;
    Message message;
    message.setHeader(0, 3);
    message.messageHandler()->handleMessage(message);
    EXPECT_EQ(message.fileDescriptorCount(), 0u);
    EXPECT_EQ(capture.count("no payload exists"), 1u);
    EXPECT_EQ(capture.countContaining("close fd"), 0u);
}

using MessageDeathTest = ::testing::Test;

TEST_F(MessageDeathTest, HeaderVectorOfWrongSizeAborts) {
    EXPECT_DEATH(Message().setHeader(std::vector<uint8_t>(23)),
                 "the data size\\(23\\) is not the same as the header size\\(24\\)");
    EXPECT_DEATH(Message().setHeader(std::vector<uint8_t>(25)),
                 "the data size\\(25\\) is not the same as the header size\\(24\\)");
}

}  // namespace
