// SocketEventHandler and the EventType masks of its base: ownership of the
// descriptor, the runnable on readiness, the fixed-length string protocol,
// and message failures with their lines.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <ipc/EventHandler.h>
#include <ipc/Message.h>
#include <ipc/Poller.h>
#include <ipc/SocketEventHandler.h>
#include <ipc/UnixDomainSocket.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "support/Descriptors.h"
#include "support/FunctionRunnable.h"
#include "support/LogCapture.h"
#include "support/RawPeer.h"
#include "support/Waiting.h"

namespace {

namespace ipc = Kestrel::ipc;
using namespace velacam::test;
using ipc::EventType;
using ipc::Message;

// The one function the reactor uses both to register a handler and to check
// its readiness.
TEST(EventTypeTest, NamedTypesMapToTheirPollMasksAndOtherValuesToNothing) {
    const std::pair<uint32_t, short> expected[] = {{1, POLLIN}, {2, POLLOUT},    {4, POLLPRI},
                                                   {0, 0},      {3, 0},          {5, 0},
                                                   {8, 0},      {0xffffffffu, 0}};
    for (const auto& [value, mask] : expected) {
        EXPECT_EQ(ipc::pollEventsOf(static_cast<EventType>(value)), mask) << value;
    }
    EXPECT_EQ(EventType::READ, static_cast<EventType>(1));
    EXPECT_EQ(EventType::WRITE, static_cast<EventType>(2));
    EXPECT_EQ(EventType::PRIORITY, static_cast<EventType>(4));
    EXPECT_EQ(sizeof(EventType), 4u);
}

class SocketEventHandlerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ipc::SocketPair pair = ipc::UnixDomainSocket::createPairedSocket(65536, 65536, false);
        ASSERT_GE(pair.first.get(), 0);
        receiverFd = pair.first.get();
        senderFd = pair.second.get();
        receiver =
                std::make_shared<ipc::SocketEventHandler>(std::move(pair.first), EventType::READ);
        sender =
                std::make_shared<ipc::SocketEventHandler>(std::move(pair.second), EventType::WRITE);
    }
    void TearDown() override {
        receiver.reset();
        sender.reset();
        leaks.check();
    }

    DescriptorLeakCheck leaks;
    LogCapture capture;
    int receiverFd = -1;
    int senderFd = -1;
    std::shared_ptr<ipc::SocketEventHandler> receiver;
    std::shared_ptr<ipc::SocketEventHandler> sender;
};

TEST_F(SocketEventHandlerTest, RunsItsRunnableOncePerEventAndOwnsItsDescriptor) {
    const std::string invalid = "The runnable is invalid, do nothing";
    receiver->handleEvent();
    EXPECT_EQ(capture.count(invalid), 1u);

    int runs = 0;
    auto counting = std::make_shared<FunctionRunnable>([&runs] { ++runs; });
    receiver->setRunnable(counting);
    receiver->handleEvent();
    receiver->handleEvent();
    EXPECT_EQ(runs, 2);

    // The next runnable replaces and releases it, and receives on readiness.
    std::vector<std::string> received;
    const std::weak_ptr<FunctionRunnable> watch = counting;
    counting.reset();
    receiver->setRunnable(std::make_shared<FunctionRunnable>([&] {
        std::string text = receiver->receiveString();
        received.push_back(text.substr(0, text.find('\0')));
    }));
    EXPECT_TRUE(watch.expired());
    ipc::Poller poller;
    poller.registerPollEvent(receiver->fd(), ipc::pollEventsOf(receiver->type()));
    sender->sendString("one");
    sender->sendString("two");
    Watchdog watchdog("ready handler", std::chrono::seconds(20));
    for (int i = 0; i < 2; ++i) {
        const auto events = poller.poll(std::chrono::seconds(5));
        ASSERT_EQ(events.size(), 1u);
        ASSERT_EQ(events[0].second, POLLIN);
        receiver->handleEvent();
    }
    EXPECT_EQ(received, (std::vector<std::string>{"one", "two"}));
    EXPECT_EQ(capture.count(invalid), 1u);

    EXPECT_EQ(receiver->fd(), receiverFd);
    EXPECT_EQ(receiver->type(), EventType::READ);
    EXPECT_TRUE(receiver->socket().isBound());
    receiver.reset();
    EXPECT_FALSE(isOpen(receiverFd));
    EXPECT_TRUE(isOpen(senderFd));
}

TEST_F(SocketEventHandlerTest, StringTravelsAsAFixedLengthBlock) {
    Message message;
    message.setHeader(5, 6, 1, 0, 0);
    sender->setString("abc", &message);
    EXPECT_EQ(message.id(), 0u);
    EXPECT_EQ(message.type(), 0u);
    EXPECT_EQ(message.flags(), 0u);
    EXPECT_EQ(message.dataCount(), 1024u);
    EXPECT_EQ(message.fileDescriptorCount(), 0u);
    std::vector<uint8_t> expected(1024, 0);
    std::copy_n("abc", 3, expected.begin());
    EXPECT_EQ(message.payload().data, expected);
    sender->setString("x", nullptr);
    EXPECT_EQ(capture.count("invalid result message"), 1u);
    sender->setString(std::string(1500, 'z'), &message);  // cut so that the NUL fits
    const Message::Payload cut = message.payload();
    ASSERT_EQ(cut.data.size(), 1024u);
    EXPECT_EQ(cut.data[1022], 'z');
    EXPECT_EQ(cut.data[1023], 0);
    EXPECT_EQ(capture.countContaining("exceeds 1023 characters"), 1u);

    sender->sendString("hi");
    sender->sendString("");
    const std::string hi = receiver->receiveString();
    ASSERT_EQ(hi.size(), 1024u);
    EXPECT_EQ(hi.substr(0, 2), "hi");
    EXPECT_EQ(hi.substr(2), std::string(1022, '\0'));
    EXPECT_EQ(receiver->receiveString(), std::string(1024, '\0'));

    // A message's descriptors are closed by receiveString (TearDown's leak
    // check shows it).
    FileDescriptor file = memoryFile();
    Message::Payload payload;
    payload.data = {'o', 'k'};
    payload.fds = {file.get()};
    message.setPayload(payload);
    ASSERT_EQ(sender->sendMessage(message), 0);
    EXPECT_EQ(receiver->receiveString(), std::string("ok"));
}

// Would-block and broken pipe are returned and logged (a string send only
// logs); a closed peer gives an empty message, successfully.
TEST_F(SocketEventHandlerTest, MessageFailures_AreReturnedAndLogged) {
    ASSERT_EQ(fcntl(receiverFd, F_SETFL, O_NONBLOCK), 0);
    Message message;
    EXPECT_EQ(receiver->receiveMessage(&message), -EAGAIN);
    EXPECT_EQ(capture.count("receive string failed(Resource temporarily unavailable)"), 1u);

    sender.reset();
    EXPECT_EQ(receiver->receiveMessage(&message), 0);
    EXPECT_EQ(receiver->receiveString(), "");  // nothing usable: no payload
    EXPECT_EQ(receiver->sendMessage(Message()), -EPIPE);
    EXPECT_EQ(capture.count("send string failed (Broken pipe)"), 1u);
    receiver->sendString("lost");
    EXPECT_EQ(capture.count("send string failed (Broken pipe)"), 2u);
}

}  // namespace
