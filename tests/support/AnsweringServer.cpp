#include "support/AnsweringServer.h"

#include <gtest/gtest.h>
#include <ipc/utils/FunctionRunnable.h>

#include "support/Messages.h"

namespace velacam::test {

using namespace Kestrel::ipc;

namespace {

class Answer : public MessageHandler {
  public:
    Answer(std::shared_ptr<SocketEventHandler> socket, uint32_t replyType)
        : mSocket(std::move(socket)), mReplyType(replyType) {}
    using MessageHandler::handleMessage;
    void handleMessage(std::unique_ptr<Message> request) override {
        auto reply = makeMessage(request->id(), {0}, {}, nullptr, mReplyType);
        reply->setHeader(request->id(), mReplyType, Message::kFlagReply, 1, 0);
        EXPECT_EQ(mSocket->sendMessage(*reply), 0);
        MessageHandler::handleMessage(*request);
    }

  private:
    std::shared_ptr<SocketEventHandler> mSocket;
    uint32_t mReplyType;
};

}  // namespace

AnsweringServer::AnsweringServer(Kestrel::utils::sys::FileDescriptor end, uint32_t replyType)
    : mSocket(std::make_shared<SocketEventHandler>(std::move(end), EventType::READ)),
      mAnswer(std::make_shared<Answer>(mSocket, replyType)),
      mLoopThread([this] { mLoop.dispatchMessages(); }) {
    mSocket->setRunnable(std::make_shared<utils::FunctionRunnable>([this] {
        auto request = std::make_unique<Message>(mAnswer);
        if (mSocket->receiveMessage(request.get()) == 0) {
            mLoop.messageQueue().enqueueMessage(std::move(request), std::chrono::milliseconds(0));
        }
    }));
    mReactor.setHangUpListener([this](int fd, short, std::shared_ptr<EventHandler>) {
        EXPECT_TRUE(mReactor.removeEventHandlerByFd(fd));
        mReactor.requestExit();
        mHungUp.set_value();
    });
}

AnsweringServer::~AnsweringServer() { stop(); }

bool AnsweringServer::start() {
    mReactorThread = std::make_unique<ReactorThread>(mReactor);
    return mReactor.registerEventHandler(mSocket);
}

bool AnsweringServer::waitForHangUp(std::chrono::milliseconds limit) {
    const bool hungUp = mHungUp.get_future().wait_for(limit) == std::future_status::ready;
    stop();
    return hungUp;
}

void AnsweringServer::stop() {
    mReactorThread.reset();
    if (mLoopThread.joinable()) {
        mLoop.requestExit();
        mLoopThread.join();
    }
}

void roundTrip(UnixDomainSocket& client, CBRegistry& registry, uint32_t id, uint32_t type,
               std::function<void(uint8_t)> callback) {
    auto request = makeMessage(id, {1, 2, 3, 4}, {}, nullptr, type);
    registry.registerCB(*request, std::move(callback));
    ASSERT_EQ(client.send(*request), 0);
    auto reply = std::make_unique<Message>();
    ASSERT_EQ(client.recv(reply.get()), 0);
    registry.unRegisterCB(std::move(reply));
}

}  // namespace velacam::test
