#include "SoakServer.h"

#include <ipc/EventHandler.h>
#include <ipc/Message.h>
#include <ipc/MessageHandler.h>
#include <ipc/MessageQueue.h>
#include <ipc/SocketEventHandler.h>
#include <ipc/UnixDomainSocket.h>
#include <ipc/utils/FunctionRunnable.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <future>

namespace velacam::soak {

using Kestrel::ipc::EventType;
using Kestrel::ipc::Message;
using Kestrel::ipc::MessageHandler;
using Kestrel::ipc::SocketEventHandler;
using Kestrel::ipc::SocketPair;
using Kestrel::ipc::UnixDomainSocket;
using Kestrel::ipc::utils::FunctionRunnable;
using Kestrel::ipc::utils::Thread;
using Kestrel::utils::sys::FileDescriptor;

namespace {

// True when `fd` is open and holds exactly `tag`.
bool holds(int fd, const char* tag) {
    char text[128] = {};
    const ssize_t got = ::pread(fd, text, sizeof(text) - 1, 0);
    return got >= 0 && std::strcmp(text, tag) == 0;
}

uint8_t check(const Message& request, const Message::Payload& payload) {
    RequestBody body{};
    if (payload.data.size() != sizeof(body)) {
        return kReplyMalformed;
    }
    std::memcpy(&body, payload.data.data(), sizeof(body));
    if (body.magic != kRequestMagic || body.seq != request.id() ||
        body.fdCount != request.fileDescriptorCount() || payload.fds.size() != body.fdCount) {
        return kReplyMalformed;
    }
    for (uint32_t j = 0; j < body.fdCount; ++j) {
        char tag[128];
        descriptorTag(tag, sizeof(tag), body.client, body.seq, j);
        if (!holds(payload.fds[j], tag)) {
            return kReplyDescriptorWrong;
        }
    }
    return kReplyOk;
}

}  // namespace

// Requests of one client waiting for the loop, above which the server stops
// reading that client until the loop has caught up: a client that floods
// fills its own socket, not the queue the others' requests wait in.
constexpr uint32_t kQueuedPerClient = 16;

struct SoakServer::Connection {
    uint32_t slot;
    int fd;
    std::shared_ptr<SocketEventHandler> handler;
    std::shared_ptr<RequestHandler> requests;  // the handler of every request received
    std::atomic<bool> closed{false};
    std::atomic<uint32_t> queued{0};
    std::atomic<bool> paused{false};
};

// Serves the requests of one connection on the loop thread, then closes what
// they carried.
class SoakServer::RequestHandler : public MessageHandler {
  public:
    RequestHandler(SoakServer& server, std::weak_ptr<Connection> connection)
        : mServer(server), mConnection(std::move(connection)) {}
    using MessageHandler::handleMessage;
    void handleMessage(std::unique_ptr<Message> request) override {
        if (auto connection = mConnection.lock()) {
            mServer.serve(connection, *request);
            mServer.dequeued(connection);
        } else {
            mServer.count([](ServerCounters& c) { ++c.droppedAfterClose; });
        }
        MessageHandler::handleMessage(*request);
    }

  private:
    SoakServer& mServer;
    std::weak_ptr<Connection> mConnection;
};

SoakServer::SoakServer() {
    SocketPair idle = UnixDomainSocket::createPairedSocket(4096, 4096, true);
    const int wakeFd = idle.first.get();
    auto idleHandler = std::make_shared<SocketEventHandler>(std::move(idle.first), EventType::READ);
    idleHandler->setRunnable(std::make_shared<FunctionRunnable>([wakeFd] {
        char byte;
        while (::recv(wakeFd, &byte, 1, MSG_DONTWAIT) > 0) {
        }
    }));
    mIdle = idleHandler;
    mIdlePeer = std::move(idle.second);
    mReactor.setHangUpListener(
            [this](int fd, short, const std::shared_ptr<Kestrel::ipc::EventHandler>&) {
                hangUp(fd);
            });

    std::promise<Kestrel::ipc::MessageLoop*> loopReady;
    mLoopThread = Thread(new FunctionRunnable([&loopReady] {
                             auto* loop = Thread::myMessageLoop();
                             loopReady.set_value(loop);
                             loop->dispatchMessages();
                         }),
                         true);
    mLoopThread.start();
    mLoop = loopReady.get_future().get();
    mReactorThread = Thread(
            new FunctionRunnable([this] { mReactor.loop(std::chrono::milliseconds(0)); }), true);
    mReactorThread.start();
    (void)mReactor.registerEventHandler(mIdle);
}

SoakServer::~SoakServer() {
    mReactor.requestExit();
    mReactorThread.wait();
    mLoop->requestExit();
    mLoopThread.wait();
    std::lock_guard<std::mutex> lock(mConnectionsMutex);
    mConnections.clear();
}

void SoakServer::addClient(uint32_t slot, FileDescriptor&& end) {
    auto connection = std::make_shared<Connection>();
    connection->slot = slot;
    connection->fd = end.get();
    connection->handler = std::make_shared<SocketEventHandler>(std::move(end), EventType::READ);
    std::weak_ptr<Connection> weak = connection;
    connection->requests = std::make_shared<RequestHandler>(*this, weak);
    connection->handler->setRunnable(std::make_shared<FunctionRunnable>([this, weak] {
        if (auto c = weak.lock()) {
            receive(c);
        }
    }));
    {
        std::lock_guard<std::mutex> lock(mConnectionsMutex);
        mConnections[slot] = connection;
    }
    count([](ServerCounters& c) { ++c.connectionsOpened; });
    (void)mReactor.registerEventHandler(connection->handler);
    wake();
}

// A registration takes part from the reactor's next wait: end the current one.
void SoakServer::wake() {
    const char byte = 1;
    (void)::send(mIdlePeer.get(), &byte, 1, MSG_DONTWAIT | MSG_NOSIGNAL);
}

void SoakServer::closeClient(uint32_t slot) {
    std::shared_ptr<Connection> connection;
    {
        std::lock_guard<std::mutex> lock(mConnectionsMutex);
        auto found = mConnections.find(slot);
        if (found == mConnections.end()) {
            return;
        }
        connection = found->second;
    }
    close(connection);
}

// On the reactor thread.
void SoakServer::receive(const std::shared_ptr<Connection>& connection) {
    if (connection->closed) {
        return;
    }
    auto request = std::make_unique<Message>(connection->requests);
    const int result = connection->handler->receiveMessage(request.get());
    if (result != 0) {
        count([result](ServerCounters& c) { ++c.receiveErrors[errorSlot(result)]; });
        // After -EAGAIN or -EINTR nothing was taken: the reactor calls again
        // while data waits.
        if (result != -EAGAIN && result != -EINTR) {
            close(connection);
        }
        return;
    }
    if (request->type() != kRequestType) {
        count([](ServerCounters& c) { ++c.notRequests; });
        MessageHandler().handleMessage(*request);
        close(connection);
        return;
    }
    if (++connection->queued >= kQueuedPerClient) {
        connection->paused = true;
        (void)mReactor.removeEventHandlerByFd(connection->fd);
    }
    mLoop->messageQueue().enqueueMessage(std::move(request), std::chrono::milliseconds(0));
}

// On the loop thread: one of the connection's requests has been served.
void SoakServer::dequeued(const std::shared_ptr<Connection>& connection) {
    if (--connection->queued <= kQueuedPerClient / 2 && connection->paused.exchange(false) &&
        !connection->closed) {
        (void)mReactor.registerEventHandler(connection->handler);
        wake();
    }
}

// On the loop thread.
void SoakServer::serve(const std::shared_ptr<Connection>& connection, Message& request) {
    const Message::Payload payload = request.payload();
    uint64_t descriptors = 0;
    for (int fd : payload.fds) {
        descriptors += fd >= 0 ? 1 : 0;
    }
    const uint8_t status = check(request, payload);
    count([&](ServerCounters& c) {
        ++c.requests;
        c.descriptorsReceived += descriptors;
        c.refusedRequests += status != kReplyOk ? 1 : 0;
    });
    if (connection->closed) {
        return;
    }
    Message reply;
    reply.setHeader(request.id(), kReplyType, Message::kFlagReply, 1, 0);
    Message::Payload answer;
    answer.data = {status};
    reply.setPayload(answer);
    const int result = connection->handler->sendMessage(reply);
    if (result != 0) {
        count([result](ServerCounters& c) { ++c.sendErrors[errorSlot(result)]; });
        close(connection);
        return;
    }
    count([](ServerCounters& c) { ++c.replies; });
}

void SoakServer::close(const std::shared_ptr<Connection>& connection) {
    if (connection->closed.exchange(true)) {
        return;
    }
    (void)mReactor.removeEventHandlerByFd(connection->fd);
    {
        std::lock_guard<std::mutex> lock(mConnectionsMutex);
        auto found = mConnections.find(connection->slot);
        if (found != mConnections.end() && found->second == connection) {
            mConnections.erase(found);
        }
    }
    count([](ServerCounters& c) { ++c.connectionsClosed; });
}

// On the reactor thread: a client's end reported an error or hang-up.
void SoakServer::hangUp(int fd) {
    std::shared_ptr<Connection> connection;
    {
        std::lock_guard<std::mutex> lock(mConnectionsMutex);
        for (const auto& [slot, c] : mConnections) {
            if (c->fd == fd) {
                connection = c;
                break;
            }
        }
    }
    if (connection) {
        count([](ServerCounters& c) { ++c.hangUps; });
        close(connection);
    }
}

bool SoakServer::drain(std::chrono::milliseconds limit) {
    struct Sentinel : MessageHandler {
        std::promise<void> done;
        using MessageHandler::handleMessage;
        void handleMessage(std::unique_ptr<Message>) override { done.set_value(); }
    };
    auto sentinel = std::make_shared<Sentinel>();
    auto handled = sentinel->done.get_future();
    mLoop->messageQueue().enqueueMessage(std::make_unique<Message>(sentinel),
                                         std::chrono::milliseconds(0));
    return handled.wait_for(limit) == std::future_status::ready;
}

ServerCounters SoakServer::counters() const {
    std::lock_guard<std::mutex> lock(mCountersMutex);
    return mCounters;
}

}  // namespace velacam::soak
