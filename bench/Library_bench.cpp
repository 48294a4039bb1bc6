// The library's round trip across two processes, as a camera client and an
// algorithm server would write it: the client sends a Message with
// UnixDomainSocket::send and waits for the reply with recv; the server runs a
// DefaultReactor whose SocketEventHandler's runnable reads the request with
// receiveMessage, sends it back with sendMessage and hands it to the default
// MessageHandler, which closes the descriptors that came with it. The client
// disposes of the reply the same way.
//
// Library: logging as on a device (errors only), with the shapes of the floor
// (RoundTripSetup), idle handlers included. Library_hostLogging: the host's
// default logging (sDetailsLevel 5, standard error, sent to /dev/null for the
// run) on the 64-byte case.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <ipc/DefaultReactor.h>
#include <ipc/EventHandler.h>
#include <ipc/Message.h>
#include <ipc/MessageHandler.h>
#include <ipc/SocketEventHandler.h>
#include <ipc/SocketPair.h>
#include <ipc/UnixDomainSocket.h>
#include <ipc/utils/Runnable.h>
#include <sysutils/FileDescriptor.h>
#include <ulog/ULogger.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <vector>

#include "CpuPinning.h"
#include "ForkedPeer.h"
#include "RawFloor.h"
#include "RoundTripSetup.h"

namespace velacam::bench {
namespace {

using Kestrel::ipc::DefaultReactor;
using Kestrel::ipc::EventType;
using Kestrel::ipc::Message;
using Kestrel::ipc::MessageHandler;
using Kestrel::ipc::SocketEventHandler;
using Kestrel::ipc::SocketPair;
using Kestrel::ipc::UnixDomainSocket;
using Kestrel::utils::sys::FileDescriptor;
using Kestrel::Utils::ULog::ULogger;

// The server's work when its socket is readable: one request in, the same
// message back out.
class EchoRunnable : public Kestrel::ipc::utils::Runnable {
  public:
    EchoRunnable(SocketEventHandler& socket, DefaultReactor& reactor,
                 std::shared_ptr<MessageHandler> disposer)
        : mSocket(socket), mReactor(reactor), mDisposer(std::move(disposer)) {}

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
    bool mSucceeded = false;
};

int serveWithReactor(FileDescriptor&& end, size_t idleCount) {
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
    auto echo =
            std::make_shared<EchoRunnable>(*served, reactor, std::make_shared<MessageHandler>());
    served->setRunnable(echo);
    if (!reactor.registerEventHandler(served)) {
        return 1;
    }
    reactor.loop(std::chrono::milliseconds(0));
    return echo->succeeded() ? 0 : 1;
}

bool roundTrip(UnixDomainSocket& client, const Message& request,
               const std::shared_ptr<MessageHandler>& disposer, size_t fdCount) {
    if (client.send(request) != 0) {
        return false;
    }
    Message reply(disposer);
    if (client.recv(&reply) != 0 || reply.fileDescriptorCount() != fdCount) {
        return false;
    }
    disposer->handleMessage(reply);
    return true;
}

// Standard error goes to /dev/null while the object lives.
class QuietStderr {
  public:
    QuietStderr() : mSaved(dup(STDERR_FILENO)) {
        const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (null >= 0) {
            dup2(null, STDERR_FILENO);
            close(null);
        }
    }
    ~QuietStderr() {
        if (mSaved >= 0) {
            dup2(mSaved, STDERR_FILENO);
            close(mSaved);
        }
    }
    QuietStderr(const QuietStderr&) = delete;
    QuietStderr& operator=(const QuietStderr&) = delete;

  private:
    int mSaved;
};

void runLibrary(benchmark::State& state) {
    const RoundTripShape shape(state);
    CpuPinning pinning(shape.pinned);
    SocketPair pair =
            UnixDomainSocket::createPairedSocket(kSocketBufferSize, kSocketBufferSize, false);
    if (!pinning.ok() || pair.first.get() < 0) {
        state.SkipWithError("cannot pin or make the socket pair");
        return;
    }
    ForkedPeer server([&] {
        pair.first = FileDescriptor();
        return serveWithReactor(std::move(pair.second), shape.idle);
    });
    pair.second = FileDescriptor();
    UnixDomainSocket client;
    client.bind(std::move(pair.first));

    const auto disposer = std::make_shared<MessageHandler>();
    SentDescriptors sent(shape.fds);
    Message request(disposer);
    request.setHeader(7, 1, 0, static_cast<uint32_t>(shape.payload),
                      static_cast<uint16_t>(shape.fds));
    Message::Payload payload;
    payload.data.assign(shape.payload, 0x5a);
    payload.fds = sent.fds();
    request.setPayload(payload);

    // The first exchange (the server's first wake) is not measured.
    bool ok = roundTrip(client, request, disposer, shape.fds);
    for (auto _ : state) {
        if (!ok || !roundTrip(client, request, disposer, shape.fds)) {
            ok = false;
            break;
        }
    }

    Message stop(disposer);
    stop.setHeader(0, raw::kStopType, 0, 0, 0);
    ok = client.send(stop) == 0 && ok;
    const bool joined = server.join();
    if (!ok || !joined) {
        state.SkipWithError("round trip failed");
    }
}

void Library(benchmark::State& state) { runLibrary(state); }

void Library_hostLogging(benchmark::State& state) {
    const uint32_t deviceLevel = ULogger::sDetailsLevel;
    ULogger::sDetailsLevel = 5;  // the host's default
    {
        QuietStderr quiet;
        runLibrary(state);
    }
    ULogger::sDetailsLevel = deviceLevel;
}

BENCHMARK(Library)->Apply(addRoundTripCases);
BENCHMARK(Library_hostLogging)->Apply(addPeerCases);

}  // namespace
}  // namespace velacam::bench
