// The library's channel, as a camera client and an algorithm server would
// write it: the client sends a Message with UnixDomainSocket::send and waits
// for the reply with recv; the server runs a DefaultReactor whose
// SocketEventHandler's runnable reads the request with receiveMessage, sends
// it back with sendMessage and hands it to the default MessageHandler, which
// closes the descriptors that came with it. The client disposes of the reply
// the same way. Through a RequestChannel, the client calls instead and the
// server flags its echo as the reply. For large messages both sides also copy the data they
// received out of the message, the one copy a user of the message makes,
// into a buffer each side keeps from message to message (as a careful user
// does: payload() would hand back a fresh vector each time, whose pages a
// large block gets from the system anew).
#include <ipc/DefaultReactor.h>
#include <ipc/EventHandler.h>
#include <ipc/Message.h>
#include <ipc/MessageHandler.h>
#include <ipc/RequestChannel.h>
#include <ipc/SocketEventHandler.h>
#include <ipc/SocketPair.h>
#include <ipc/UnixDomainSocket.h>
#include <ipc/utils/Runnable.h>
#include <sysutils/FileDescriptor.h>
#include <ulog/ULogger.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "ForkedPeer.h"
#include "RawFloor.h"
#include "RoundTripChannel.h"

namespace velacam::bench {
namespace {

using Kestrel::ipc::DefaultReactor;
using Kestrel::ipc::EventType;
using Kestrel::ipc::Message;
using Kestrel::ipc::MessageHandler;
using Kestrel::ipc::RequestChannel;
using Kestrel::ipc::SocketEventHandler;
using Kestrel::ipc::SocketPair;
using Kestrel::ipc::UnixDomainSocket;
using Kestrel::utils::sys::FileDescriptor;
using Kestrel::Utils::ULog::ULogger;

constexpr uint32_t kHostDetailsLevel = 5;

// A larger case would be refused by the send.
static_assert(kLargestRecord <= UnixDomainSocket::kMaxInlineData);

// What a user of a received message does to get at its data: one copy,
// into a buffer of the user's that outlives the message. The data lies
// right behind the 24-byte header, in the same storage.
class PayloadReader {
  public:
    void read(const Message& message) {
        const uint8_t* header = message.header().first;
        const uint32_t size = message.dataCount();
        mCopy.resize(size);
        std::memcpy(mCopy.data(), header + Message::kHeaderSize, size);
        benchmark::DoNotOptimize(mCopy.data());
    }

  private:
    std::vector<uint8_t> mCopy;
};

// The server's work when its socket is readable: one request in, the same
// message back out.
class EchoRunnable : public Kestrel::ipc::utils::Runnable {
  public:
    EchoRunnable(SocketEventHandler& socket, DefaultReactor& reactor,
                 std::shared_ptr<MessageHandler> disposer, LibraryUse use)
        : mSocket(socket), mReactor(reactor), mDisposer(std::move(disposer)), mUse(use) {}

    void run() override {
        Message request(mDisposer);
        if (mSocket.receiveMessage(&request) != 0) {
            finish(false);
            return;
        }
        if (request.type() == raw::kStopType) {
            finish(true);
            return;
        }
        if (mUse.readsPayload) {
            mReader.read(request);
        }
        if (mUse.flagsReplies || mUse.throughRequestChannel) {
            request.setHeader(request.id(), request.type(), Message::kFlagReply,
                              request.dataCount(), request.fileDescriptorCount());
        }
        const bool sent = mSocket.sendMessage(request) == 0;
        mDisposer->handleMessage(request);
        if (!sent) {
            finish(false);
        }
    }

    bool succeeded() const { return mSucceeded; }

  private:
    void finish(bool succeeded) {
        mSucceeded = succeeded;
        mReactor.requestExit();
    }

    SocketEventHandler& mSocket;
    DefaultReactor& mReactor;
    std::shared_ptr<MessageHandler> mDisposer;
    LibraryUse mUse;
    PayloadReader mReader;
    bool mSucceeded = false;
};

int serveWithReactor(FileDescriptor&& end, size_t idleCount, LibraryUse use) {
    IdleSockets idle(idleCount);
    if (!idle.ok()) {
        return 1;
    }
    DefaultReactor reactor;
    std::vector<std::shared_ptr<SocketEventHandler>> idleHandlers;
    for (int fd : idle.releaseWatched()) {
        idleHandlers.push_back(
                std::make_shared<SocketEventHandler>(FileDescriptor(fd, 0), EventType::READ));
        if (!reactor.registerEventHandler(idleHandlers.back())) {
            return 1;
        }
    }
    auto served = std::make_shared<SocketEventHandler>(std::move(end), EventType::READ);
    if (use.unboundedPayloadWait) {
        served->setPayloadTimeout(std::chrono::milliseconds(0));
    }
    auto echo = std::make_shared<EchoRunnable>(*served, reactor, std::make_shared<MessageHandler>(),
                                               use);
    served->setRunnable(echo);
    if (!reactor.registerEventHandler(served)) {
        return 1;
    }
    reactor.loop(std::chrono::milliseconds(0));
    return echo->succeeded() ? 0 : 1;
}

class LibraryChannel : public RoundTripChannel {
  public:
    LibraryChannel(FileDescriptor&& end, std::unique_ptr<ForkedPeer> server,
                   const RoundTripShape& shape, LibraryUse use)
        : mServer(std::move(server)),
          mDisposer(std::make_shared<MessageHandler>()),
          mSent(shape.fds),
          mSentCount(static_cast<uint16_t>(shape.fds)),
          mRequest(mDisposer),
          mUse(use) {
        if (use.throughRequestChannel) {
            mChannel = std::make_unique<RequestChannel>(std::move(end));
        } else {
            mClient.bind(std::move(end));
        }
        if (use.unboundedPayloadWait) {
            mClient.setPayloadTimeout(std::chrono::milliseconds(0));
        }
        mRequest.setHeader(7, 1, 0, static_cast<uint32_t>(shape.payload), mSentCount);
        Message::Payload payload;
        payload.data.assign(shape.payload, 0x5a);
        payload.fds = mSent.fds();
        mRequest.setPayload(payload);
    }
    ~LibraryChannel() override { (void)finish(); }

    bool roundTrip() override {
        const uint32_t level = ULogger::sDetailsLevel;
        if (mUse.hostLogging) {
            ULogger::sDetailsLevel = kHostDetailsLevel;
        }
        const bool ok = exchange();
        ULogger::sDetailsLevel = level;
        return ok;
    }

    bool finish() override {
        if (!mServer) {
            return true;
        }
        Message stop(mDisposer);
        stop.setHeader(0, raw::kStopType, 0, 0, 0);
        bool sent = false;
        if (mChannel) {
            // Never answered: the call ends when the server's process does.
            std::unique_ptr<Message> none;
            sent = mChannel->call(stop, kStopWait, &none) == RequestChannel::kPeerGone;
        } else {
            sent = mClient.send(stop) == 0;
        }
        const bool joined = mServer->join();
        mServer.reset();
        return sent && joined;
    }

    long serverFaults() const override { return mServer ? mServer->minorFaults() : -1; }

  private:
    bool exchange() {
        if (mChannel) {
            return call();
        }
        if (mClient.send(mRequest) != 0) {
            return false;
        }
        Message reply(mDisposer);
        if (mClient.recv(&reply) != 0 || reply.fileDescriptorCount() != mSentCount) {
            return false;
        }
        if (mUse.readsPayload) {
            mReader.read(reply);
        }
        mDisposer->handleMessage(reply);
        return true;
    }

    // The round trip through the channel: the reply comes whole, owned here.
    bool call() {
        std::unique_ptr<Message> reply;
        if (mChannel->call(mRequest, kReplyWait, &reply) != 0 ||
            reply->fileDescriptorCount() != mSentCount) {
            return false;
        }
        if (mUse.readsPayload) {
            mReader.read(*reply);
        }
        mDisposer->handleMessage(*reply);
        return true;
    }

    static constexpr std::chrono::seconds kReplyWait{5};
    static constexpr std::chrono::seconds kStopWait{10};

    std::unique_ptr<ForkedPeer> mServer;
    std::shared_ptr<MessageHandler> mDisposer;
    SentDescriptors mSent;
    uint16_t mSentCount;  // what every reply must bring back, as the floors compare
    UnixDomainSocket mClient;
    Message mRequest;
    LibraryUse mUse;
    PayloadReader mReader;
    std::unique_ptr<RequestChannel> mChannel;  // set when the client calls through one
};

}  // namespace

std::unique_ptr<RoundTripChannel> makeLibraryChannel(const RoundTripShape& shape, LibraryUse use) {
    SocketPair pair =
            UnixDomainSocket::createPairedSocket(kSocketBufferSize, kSocketBufferSize, false);
    if (pair.first.get() < 0 || !socketHolds(pair.first.get(), kLargestRecord) ||
        !socketHolds(pair.second.get(), kLargestRecord)) {
        return nullptr;
    }
    const size_t idleCount = shape.idle;
    auto server = std::make_unique<ForkedPeer>([&] {
        pair.first = FileDescriptor();
        if (use.hostLogging) {
            ULogger::sDetailsLevel = kHostDetailsLevel;
        }
        return serveWithReactor(std::move(pair.second), idleCount, use);
    });
    pair.second = FileDescriptor();
    if (!server->started()) {
        return nullptr;
    }
    return std::make_unique<LibraryChannel>(std::move(pair.first), std::move(server), shape, use);
}

}  // namespace velacam::bench
