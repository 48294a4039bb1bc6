// SocketEventHandler: ownership of the descriptor, the runnable on readiness,
// the fixed-length string protocol, message failures and their lines, and a
// handler driven through a Poller in one process and across two.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <ipc/EventHandler.h>
#include <ipc/Message.h>
#include <ipc/Poller.h>
#include <ipc/SocketEventHandler.h>
#include <ipc/UnixDomainSocket.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/Descriptors.h"
#include "support/FunctionRunnable.h"
#include "support/LogCapture.h"
#include "support/RawPeer.h"

namespace {

using Kestrel::ipc::EventType;
using Kestrel::ipc::Message;
using Kestrel::ipc::Poller;
using Kestrel::ipc::SocketEventHandler;
using Kestrel::ipc::SocketPair;
using Kestrel::ipc::UnixDomainSocket;
using Kestrel::utils::sys::FileDescriptor;
using velacam::test::FunctionRunnable;
using velacam::test::LogCapture;
using namespace std::chrono_literals;

class SocketEventHandlerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        SocketPair pair = UnixDomainSocket::createPairedSocket(65536, 65536, false);
        ASSERT_GE(pair.first.get(), 0);
        receiverFd = pair.first.get();
        senderFd = pair.second.get();
        receiver = std::make_shared<SocketEventHandler>(std::move(pair.first), EventType::READ);
        sender = std::make_shared<SocketEventHandler>(std::move(pair.second), EventType::WRITE);
    }
    void TearDown() override {
        receiver.reset();
        sender.reset();
        leaks.check();
    }

    velacam::test::DescriptorLeakCheck leaks;
    LogCapture capture;
    int receiverFd = -1;
    int senderFd = -1;
    std::shared_ptr<SocketEventHandler> receiver;
    std::shared_ptr<SocketEventHandler> sender;
};

TEST_F(SocketEventHandlerTest, OwnsTheDescriptorItWatches) {
    EXPECT_EQ(receiver->fd(), receiverFd);
    EXPECT_EQ(receiver->type(), EventType::READ);
    EXPECT_TRUE(receiver->socket().isBound());
    receiver.reset();
    EXPECT_FALSE(velacam::test::isOpen(receiverFd));
    EXPECT_TRUE(velacam::test::isOpen(senderFd));
}

TEST_F(SocketEventHandlerTest, HandleEvent_RunsTheRunnableOncePerCallOrLogs) {
    receiver->handleEvent();
    receiver->handleEvent();
    EXPECT_EQ(capture.count("The runnable is invalid, do nothing"), 2u);

    int runs = 0;
    auto first = std::make_shared<FunctionRunnable>([&runs] { ++runs; });
    receiver->setRunnable(first);
    receiver->handleEvent();
    EXPECT_EQ(runs, 1);
    std::weak_ptr<FunctionRunnable> watch = first;
    first.reset();
    receiver->setRunnable(std::make_shared<FunctionRunnable>([&runs] { runs += 10; }));
    EXPECT_TRUE(watch.expired());  // the previous runnable is released
    receiver->handleEvent();
    EXPECT_EQ(runs, 11);
    EXPECT_EQ(capture.count("The runnable is invalid, do nothing"), 2u);
}

TEST_F(SocketEventHandlerTest, StringTravelsAsAFixedLengthBlock) {
    sender->sendString("hi");
    sender->sendString("");
    const std::string hi = receiver->receiveString();
    ASSERT_EQ(hi.size(), 1024u);
    EXPECT_EQ(hi.substr(0, 2), "hi");
    EXPECT_EQ(hi.substr(2), std::string(1022, '\0'));
    EXPECT_EQ(receiver->receiveString(), std::string(1024, '\0'));
}

TEST_F(SocketEventHandlerTest, SetString_FillsAStringMessage) {
    Message message;
    message.setHeader(5, 6, 1, 0, 0);
    sender->setString("abc", &message);
    EXPECT_EQ(message.id(), 0u);
    EXPECT_EQ(message.type(), 0u);
    EXPECT_EQ(message.flags(), 0u);
    EXPECT_EQ(message.dataCount(), 1024u);
    EXPECT_EQ(message.fileDescriptorCount(), 0u);
    std::vector<uint8_t> expected(1024, 0);
    expected[0] = 'a';
    expected[1] = 'b';
    expected[2] = 'c';
    EXPECT_EQ(message.payload().data, expected);

    sender->setString("x", nullptr);
    EXPECT_EQ(capture.count("invalid result message"), 1u);

    sender->setString(std::string(1500, 'z'), &message);  // cut so that the NUL fits
    const Message::Payload cut = message.payload();
    ASSERT_EQ(cut.data.size(), 1024u);
    EXPECT_EQ(cut.data[1022], 'z');
    EXPECT_EQ(cut.data[1023], 0);
    EXPECT_EQ(capture.countContaining("exceeds 1023 characters"), 1u);
}

TEST_F(SocketEventHandlerTest, ReceiveString_ClosesDescriptorsAMessageCarried) {
    FileDescriptor file = velacam::test::memoryFile();
    Message message;
    Message::Payload payload;
    payload.data = {'o', 'k'};
    payload.fds = {file.get()};
    message.setPayload(payload);
    ASSERT_EQ(sender->sendMessage(message), 0);
    EXPECT_EQ(receiver->receiveString(), std::string("ok"));
    // TearDown's leak check shows the received duplicate was closed.
}

TEST_F(SocketEventHandlerTest, MessageFailures_AreReturnedAndLogged) {
    ASSERT_EQ(fcntl(receiverFd, F_SETFL, O_NONBLOCK), 0);
    Message message;
    EXPECT_EQ(receiver->receiveMessage(&message), -EAGAIN);
    EXPECT_EQ(capture.count("receive string failed(Resource temporarily unavailable)"), 1u);

    receiver.reset();
    EXPECT_EQ(sender->sendMessage(Message()), -EPIPE);
    EXPECT_EQ(capture.count("send string failed (Broken pipe)"), 1u);
    sender->sendString("lost");  // only logged
    EXPECT_EQ(capture.count("send string failed (Broken pipe)"), 2u);
}

TEST_F(SocketEventHandlerTest, ClosedPeer_ReceivesAnEmptyMessageSuccessfully) {
    sender.reset();
    Message message;
    EXPECT_EQ(receiver->receiveMessage(&message), 0);
    EXPECT_EQ(receiver->receiveString(), "");  // nothing usable: no payload
    EXPECT_GE(capture.count("no payload exists"), 1u);
}

TEST_F(SocketEventHandlerTest, ReadyDescriptor_RunsTheRunnableThatReceives) {
    std::vector<std::string> received;
    receiver->setRunnable(std::make_shared<FunctionRunnable>([&] {
        std::string text = receiver->receiveString();
        received.push_back(text.substr(0, text.find('\0')));
    }));
    Poller poller;
    poller.registerPollEvent(receiver->fd(), Kestrel::ipc::pollEventsOf(receiver->type()));
    sender->sendString("one");
    sender->sendString("two");
    for (int i = 0; i < 2; ++i) {
        const auto events = poller.poll(5000ms);
        ASSERT_EQ(events.size(), 1u);
        ASSERT_EQ(events[0].second, POLLIN);
        receiver->handleEvent();
    }
    EXPECT_EQ(received, (std::vector<std::string>{"one", "two"}));
}

TEST_F(SocketEventHandlerTest, TwoProcesses_ExchangeStrings) {
    const pid_t child = velacam::test::forkPeer([this] {
        const std::string question = sender->receiveString();
        sender->sendString(question.substr(0, question.find('\0')) + " pong");
        return 0;
    });
    receiver->sendString("ping");
    const std::string answer = receiver->receiveString();
    EXPECT_EQ(velacam::test::waitPeer(child), 0);
    EXPECT_EQ(answer.substr(0, answer.find('\0')), "ping pong");
    EXPECT_EQ(answer.size(), 1024u);
}

}  // namespace
