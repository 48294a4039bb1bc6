#include "AlgorithmSide.h"

#include <ipc/DefaultReactor.h>
#include <ipc/EventHandler.h>
#include <ipc/Message.h>
#include <ipc/MessageHandler.h>
#include <ipc/MessageLoop.h>
#include <ipc/MessageQueue.h>
#include <ipc/SocketEventHandler.h>
#include <ipc/Tracing.h>
#include <ipc/utils/FunctionRunnable.h>
#include <ipc/utils/Thread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <future>
#include <memory>

#include "DemoObservation.h"
#include "DemoProtocol.h"
#include "SharedBuffer.h"

namespace demo {

namespace {

using Kestrel::ipc::DefaultReactor;
using Kestrel::ipc::EventHandler;
using Kestrel::ipc::EventType;
using Kestrel::ipc::Message;
using Kestrel::ipc::MessageHandler;
using Kestrel::ipc::MessageLoop;
using Kestrel::ipc::SocketEventHandler;
using Kestrel::ipc::utils::FunctionRunnable;
using Kestrel::ipc::utils::Thread;

// Runs on the loop thread: transforms the buffers of one request, replies,
// and lets the default handling close the request's descriptors.
class RequestHandler : public MessageHandler {
  public:
    // Holds the socket weakly: the socket's runnable holds this handler.
    explicit RequestHandler(std::weak_ptr<SocketEventHandler> socket)
        : mSocket(std::move(socket)) {}

    using MessageHandler::handleMessage;
    void handleMessage(std::unique_ptr<Message> request) override {
        const Message::Payload payload = request->payload();
        uint8_t status = kStatusFailed;
        if (request->type() == kProcessBuffers && payload.data.size() == sizeof(uint32_t)) {
            uint32_t bytes;
            std::memcpy(&bytes, payload.data.data(), sizeof(bytes));
            status = kStatusOk;
            for (int fd : payload.fds) {
                if (!SharedBuffer::reverseWords(fd, bytes)) {
                    status = kStatusFailed;
                }
            }
        }
        Message reply;
        reply.setHeader(request->id(), request->type(), Message::kFlagReply, 1, 0);
        Message::Payload replyPayload;
        replyPayload.data = {status};
        reply.setPayload(replyPayload);
        if (auto socket = mSocket.lock()) {
            (void)socket->sendMessage(reply);  // a failure is logged by the library
        }
        MessageHandler::handleMessage(*request);
    }

  private:
    std::weak_ptr<SocketEventHandler> mSocket;
};

}  // namespace

int AlgorithmSide::run() {
    // Stop requests are taken by this thread alone, with sigwait.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    Kestrel::ipc::Tracing::nameProcess("algorithm");  // if the camera asked for a trace
    auto socket = std::make_shared<SocketEventHandler>(
            Kestrel::utils::sys::FileDescriptor(mSocketFd, 0), EventType::READ);
    auto requests = std::make_shared<RequestHandler>(socket);

    std::promise<MessageLoop*> loopReady;
    Thread loopThread(new FunctionRunnable([&loopReady] {
                          MessageLoop* loop = Thread::myMessageLoop();
                          loopReady.set_value(loop);
                          loop->dispatchMessages();
                      }),
                      true);
    loopThread.start();
    MessageLoop* loop = loopReady.get_future().get();

    socket->setRunnable(std::make_shared<FunctionRunnable>([socket = socket.get(), requests, loop] {
        auto request = std::make_unique<Message>(requests);
        if (socket->receiveMessage(request.get()) == 0) {
            loop->messageQueue().enqueueMessage(std::move(request), std::chrono::milliseconds(0));
        }
    }));

    DefaultReactor reactor;
    // The camera process is gone (its end of the socket closed): nobody is
    // left to serve. Stop polling the socket, end the loop, and wake the main
    // thread with the stop signal it waits for (pending, since every thread
    // blocks it, until sigwait takes it).
    std::atomic<bool> cameraGone{false};
    reactor.setHangUpListener(
            [&reactor, &cameraGone](int fd, short, std::shared_ptr<EventHandler>) {
                (void)reactor.removeEventHandlerByFd(fd);
                reactor.requestExit();
                cameraGone = true;
                kill(getpid(), SIGTERM);
            });
    Thread reactorThread(
            new FunctionRunnable([&reactor] { reactor.loop(std::chrono::milliseconds(0)); }), true);
    reactorThread.start();
    (void)reactor.registerEventHandler(socket);

    int signal = 0;
    sigwait(&stopSignals, &signal);
    if (cameraGone) {
        std::printf("algorithm: the camera process has gone (hang-up on the socket); exiting\n");
        std::fflush(stdout);
    }

    reactor.requestExit();
    reactorThread.wait();
    printStatistics("algorithm", socket->fd(), &reactor, loop);
    loop->requestExit();
    loopThread.wait();
    return 0;
}

}  // namespace demo
