// The peer: ZeroMQ's ipc:// transport (a REQ and a REP socket in two
// processes) carrying the same 64-byte request and reply, without
// descriptors, as the library's round trip it is compared with.
#include <benchmark/benchmark.h>
#include <unistd.h>
#include <zmq.h>

#include <cstdint>
#include <string>
#include <vector>

#include "CpuPinning.h"
#include "ForkedPeer.h"
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

bool roundTrip(void* socket, const std::vector<uint8_t>& request, std::vector<uint8_t>& reply) {
    const int size = static_cast<int>(request.size());
    return zmq_send(socket, request.data(), request.size(), 0) == size &&
           zmq_recv(socket, reply.data(), reply.size(), 0) == size;
}

void ZeroMQ_ipc(benchmark::State& state) {
    const RoundTripShape shape(state);
    CpuPinning pinning(shape.pinned);
    if (!pinning.ok()) {
        state.SkipWithError("cannot pin");
        return;
    }
    static int sRun = 0;
    const std::string path = "/tmp/velacam-bench-zmq-" + std::to_string(getpid()) + "-" +
                             std::to_string(++sRun) + ".ipc";
    const std::string endpoint = "ipc://" + path;
    ForkedPeer server([&] { return serveReplies(endpoint, shape.payload); });

    bool ok = true;
    {
        ZmqEndpoint request(ZMQ_REQ);
        std::vector<uint8_t> data(shape.payload, 0x5a);
        std::vector<uint8_t> reply(kMaxMessage);
        ok = request.socket() != nullptr && zmq_connect(request.socket(), endpoint.c_str()) == 0;
        // The first exchange waits for the connection; it is not measured.
        ok = ok && roundTrip(request.socket(), data, reply);
        for (auto _ : state) {
            if (!ok || !roundTrip(request.socket(), data, reply)) {
                ok = false;
                break;
            }
        }
        const uint8_t stop = 0;
        if (request.socket() != nullptr && zmq_send(request.socket(), &stop, 1, 0) == 1) {
            zmq_recv(request.socket(), reply.data(), reply.size(), 0);
        }
    }
    const bool joined = server.join();
    unlink(path.c_str());
    if (!ok || !joined) {
        state.SkipWithError("ZeroMQ round trip failed");
    }
}

BENCHMARK(ZeroMQ_ipc)->Apply(addPeerCases);

}  // namespace
}  // namespace velacam::bench
