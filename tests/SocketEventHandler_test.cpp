// SocketEventHandler: the descriptor, the runnable, the fixed-length string.
#include <errno.h>
#include <fcntl.h>
#include <ipc/SocketEventHandler.h>
#include <ipc/utils/FunctionRunnable.h>

#include <memory>
#include <string>

#include "support/Messages.h"
#include "support/SocketPairFixture.h"

namespace {

using namespace Kestrel::ipc;
using namespace velacam::test;
using utils::FunctionRunnable;

class SocketEventHandlerTest : public SocketPairFixture {
  protected:
    std::shared_ptr<SocketEventHandler> receiver =
            std::make_shared<SocketEventHandler>(std::move(pair.first), EventType::READ);
    std::shared_ptr<SocketEventHandler> sender =
            std::make_shared<SocketEventHandler>(std::move(pair.second), EventType::WRITE);
};

TEST_F(SocketEventHandlerTest, RunsItsRunnableOncePerEventAndOwnsItsDescriptor) {
    receiver->handleEvent();  // no runnable yet
    EXPECT_EQ(capture.count("The runnable is invalid, do nothing"), 1u);
    int runs = 0;
    auto counting = std::make_shared<FunctionRunnable>([&runs] { ++runs; });
    const std::weak_ptr<FunctionRunnable> watch = counting;
    receiver->setRunnable(std::move(counting));
    receiver->handleEvent();
    receiver->handleEvent();
    EXPECT_EQ(runs, 2);

    // The next runnable replaces and releases it.
    std::vector<std::string> received;
    receiver->setRunnable(std::make_shared<FunctionRunnable>([&] {
        const std::string text = receiver->receiveString();
        received.push_back(text.substr(0, text.find('\0')));
    }));
    EXPECT_TRUE(watch.expired());
    sender->sendString("one");
    sender->sendString("two");
    receiver->handleEvent();
    receiver->handleEvent();
    EXPECT_EQ(received, (std::vector<std::string>{"one", "two"}));
    receiver.reset();
    EXPECT_FALSE(isOpen(near));
    EXPECT_TRUE(isOpen(far));
}

TEST_F(SocketEventHandlerTest, StringTravelsAsAFixedLengthBlock) {
    Message message;
    message.setHeader(5, 6, 1, 0, 0);
    sender->setString("abc", &message);
    EXPECT_EQ(std::make_tuple(message.id(), message.type(), message.flags(), message.dataCount(),
                              message.fileDescriptorCount()),
              std::make_tuple(0u, 0u, 0u, 1024u, uint16_t{0}));
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
    const std::string hi = receiver->receiveString();
    ASSERT_EQ(hi.size(), 1024u);
    EXPECT_EQ(hi, "hi" + std::string(1022, '\0'));
    // receiveString closes a message's descriptors (the leak check shows it).
    ASSERT_EQ(sender->sendMessage(*makeMessage(1, {'o', 'k'}, {file.get()})), 0);
    EXPECT_EQ(receiver->receiveString(), std::string("ok"));
}

// A string send only logs; a closed peer gives an empty message, successfully.
TEST_F(SocketEventHandlerTest, MessageFailures_AreReturnedAndLogged) {
    ASSERT_EQ(fcntl(near, F_SETFL, O_NONBLOCK), 0);
    Message message;
    EXPECT_EQ(receiver->receiveMessage(&message), -EAGAIN);
    EXPECT_EQ(capture.count("receive string failed(Resource temporarily unavailable)"), 1u);
    sender.reset();
    EXPECT_EQ(receiver->receiveMessage(&message), 0);
    EXPECT_EQ(receiver->receiveString(), "");  // nothing usable: no payload
    EXPECT_EQ(receiver->sendMessage(Message()), -EPIPE);
    receiver->sendString("lost");
    EXPECT_EQ(capture.count("send string failed (Broken pipe)"), 2u);
}

}  // namespace
