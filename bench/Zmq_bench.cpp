// The peer: ZeroMQ's ipc:// transport (a REQ and a REP socket in two
// processes) carrying the same 64-byte request and reply, without
// descriptors, measured in pairs against the library's round trip.
#include <benchmark/benchmark.h>
#include <unistd.h>
#include <zmq.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "CpuPinning.h"
#include "ForkedPeer.h"
#include "RoundTripChannel.h"
#include "RoundTripSetup.h"

namespace velacam::bench {
namespace {

constexpr size_t kMaxMessage = 4096;

// A context and one socket of `type`, closed (without lingering) and
// terminated on destruction.
class ZmqEndpoint {
  public:
    explicit ZmqEndpoint(int type) : mContext(zmq_ctx_new()) {
        if (mContext != nullptr) {
            mSocket = zmq_socket(mContext, type);
        }
        if (mSocket != nullptr) {
            const int linger = 0;
            zmq_setsockopt(mSocket, ZMQ_LINGER, &linger, sizeof(linger));
        }
    }
    ~ZmqEndpoint() {
        if (mSocket != nullptr) {
            zmq_close(mSocket);
        }
        if (mContext != nullptr) {
            zmq_ctx_term(mContext);
        }
    }
    ZmqEndpoint(const ZmqEndpoint&) = delete;
    ZmqEndpoint& operator=(const ZmqEndpoint&) = delete;

    void* socket() const { return mSocket; }

  private:
    void* mContext;
    void* mSocket = nullptr;
};

// Replies to each request with its own bytes; a request of any other size
// than `payload` is the stop request, answered empty.
int serveReplies(const std::string& endpoint, size_t payload) {
    ZmqEndpoint reply(ZMQ_REP);
    if (reply.socket() == nullptr || zmq_bind(reply.socket(), endpoint.c_str()) != 0) {
        return 1;
    }
    std::vector<uint8_t> buffer(kMaxMessage);
    while (true) {
        const int received = zmq_recv(reply.socket(), buffer.data(), buffer.size(), 0);
        if (received < 0) {
            return 1;
        }
        if (static_cast<size_t>(received) != payload) {
            return zmq_send(reply.socket(), nullptr, 0, 0) == 0 ? 0 : 1;
        }
        if (zmq_send(reply.socket(), buffer.data(), received, 0) != received) {
            return 1;
        }
    }
}

class ZmqChannel : public RoundTripChannel {
  public:
    ZmqChannel(std::string path, std::unique_ptr<ForkedPeer> server, size_t payload)
        : mPath(std::move(path)),
          mServer(std::move(server)),
          mRequest(ZMQ_REQ),
          mData(payload, 0x5a),
          mReply(kMaxMessage) {
        const std::string endpoint = "ipc://" + mPath;
        mConnected = mRequest.socket() != nullptr &&
                     zmq_connect(mRequest.socket(), endpoint.c_str()) == 0;
    }
    ~ZmqChannel() override { (void)finish(); }

    bool roundTrip() override {
        const int size = static_cast<int>(mData.size());
        return mConnected && zmq_send(mRequest.socket(), mData.data(), mData.size(), 0) == size &&
               zmq_recv(mRequest.socket(), mReply.data(), mReply.size(), 0) == size;
    }

    bool finish() override {
        if (!mServer) {
            return true;
        }
        const uint8_t stop = 0;
        const bool stopped = mConnected && zmq_send(mRequest.socket(), &stop, 1, 0) == 1 &&
                             zmq_recv(mRequest.socket(), mReply.data(), mReply.size(), 0) == 0;
        const bool joined = mServer->join();
        mServer.reset();
        unlink(mPath.c_str());
        return stopped && joined;
    }

    long serverFaults() const override { return mServer ? mServer->minorFaults() : -1; }

  private:
    std::string mPath;
    std::unique_ptr<ForkedPeer> mServer;
    ZmqEndpoint mRequest;
    std::vector<uint8_t> mData;
    std::vector<uint8_t> mReply;
    bool mConnected = false;
};

std::unique_ptr<RoundTripChannel> makeZmqChannel(const RoundTripShape& shape) {
    static int sRun = 0;
    std::string path = "/tmp/velacam-bench-zmq-" + std::to_string(getpid()) + "-" +
                       std::to_string(++sRun) + ".ipc";
    const std::string endpoint = "ipc://" + path;
    const size_t payload = shape.payload;
    auto server = std::make_unique<ForkedPeer>([&] { return serveReplies(endpoint, payload); });
    if (!server->started()) {
        return nullptr;
    }
    return std::make_unique<ZmqChannel>(std::move(path), std::move(server), shape.payload);
}

void Library_vs_ZeroMQ(benchmark::State& state) {
    const RoundTripShape shape(state);
    CpuPinning pinning(shape.pinned);
    if (!pinning.ok()) {
        state.SkipWithError("cannot pin to one CPU");
        return;
    }
    // The library's server is forked first, before ZeroMQ starts its threads.
    const auto library = makeLibraryChannel(shape, {});
    const auto zmq = makeZmqChannel(shape);
    if (!library || !zmq) {
        state.SkipWithError("cannot set up the channels");
        return;
    }
    runPaired(state, *library, *zmq, "ZeroMQ 64 B/pinned:" + std::to_string(shape.pinned ? 1 : 0));
}

BENCHMARK(Library_vs_ZeroMQ)->Apply(addPeerCases);

}  // namespace
}  // namespace velacam::bench
