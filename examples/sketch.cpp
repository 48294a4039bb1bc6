// The README's composition sketch, compiled and run as a test.
#include <ipc/CBRegistry.h>
#include <ipc/DefaultReactor.h>
#include <ipc/MessageHandler.h>
#include <ipc/MessageLoop.h>
#include <ipc/MessageQueue.h>
#include <ipc/SocketEventHandler.h>
#include <ipc/UnixDomainSocket.h>
#include <ipc/utils/FunctionRunnable.h>
#include <ipc/utils/Thread.h>

#include <chrono>
#include <future>

using namespace Kestrel::ipc;
using Kestrel::ipc::utils::FunctionRunnable;  // runs a lambda on a Thread or a handler
using Kestrel::ipc::utils::Thread;

// Serving side: answers every request with the reply flag and status 0.
struct Answer : MessageHandler {
    std::weak_ptr<SocketEventHandler> socket;
    using MessageHandler::handleMessage;
    void handleMessage(std::unique_ptr<Message> request) override {
        Message reply;
        reply.setHeader(request->id(), request->type(), Message::kFlagReply, 1, 0);
        Message::Payload status;
        status.data = {0};
        reply.setPayload(status);
        if (auto s = socket.lock()) {
            (void)s->sendMessage(reply);
        }
        MessageHandler::handleMessage(*request);  // closes the request's descriptors
    }
};

int main() {
    SocketPair pair = UnixDomainSocket::createPairedSocket(65536, 65536, false);
    auto server = std::make_shared<SocketEventHandler>(std::move(pair.first), EventType::READ);
    auto client = std::make_shared<SocketEventHandler>(std::move(pair.second), EventType::READ);

    // A loop thread: the serving side's handler runs here.
    std::promise<MessageLoop*> loopReady;
    Thread loopThread(new FunctionRunnable([&] {
                          loopReady.set_value(Thread::myMessageLoop());
                          Thread::myMessageLoop()->dispatchMessages();
                      }),
                      true);
    loopThread.start();
    MessageLoop* loop = loopReady.get_future().get();

    // The reactor thread receives: requests go to the loop, replies to the registry.
    auto answer = std::make_shared<Answer>();
    answer->socket = server;
    CBRegistry replies(1);
    server->setRunnable(std::make_shared<FunctionRunnable>([&] {
        auto request = std::make_unique<Message>(answer);
        if (server->receiveMessage(request.get()) == 0) {
            loop->messageQueue().enqueueMessage(std::move(request), std::chrono::milliseconds(0));
        }
    }));
    client->setRunnable(std::make_shared<FunctionRunnable>([&] {
        auto reply = std::make_unique<Message>();
        if (client->receiveMessage(reply.get()) == 0) {
            replies.unRegisterCB(std::move(reply));
        }
    }));
    DefaultReactor reactor;
    Thread reactorThread(new FunctionRunnable([&] { reactor.loop(std::chrono::milliseconds(0)); }),
                         true);
    reactorThread.start();
    (void)reactor.registerEventHandler(server);
    (void)reactor.registerEventHandler(client);

    // One request, matched to its reply by id.
    Message request;
    request.setHeader(/*id*/ 1, /*type*/ 7, /*flags*/ 0, 0, 0);
    std::promise<uint8_t> status;
    replies.registerCB(request, [&](uint8_t s) { status.set_value(s); });
    (void)client->sendMessage(request);
    auto done = status.get_future();
    const bool answered = done.wait_for(std::chrono::seconds(5)) == std::future_status::ready;

    reactor.requestExit();
    reactorThread.wait();
    loop->requestExit();
    loopThread.wait();
    return answered && done.get() == 0 ? 0 : 1;
}
