// The floor: a round trip written with raw socketpair/ppoll/sendmsg/recvmsg
// calls in the library's wire format (RawFloor). Every library round trip is
// reported as a ratio to this figure, taken in the same run with the same
// shape.
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <vector>

#include "CpuPinning.h"
#include "ForkedPeer.h"
#include "RawFloor.h"
#include "RoundTripSetup.h"

namespace velacam::bench {
namespace {

bool makeSocketPair(int pair[2]) {
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) {
        return false;
    }
    const int size = static_cast<int>(kSocketBufferSize);
    for (int i = 0; i < 2; ++i) {
        setsockopt(pair[i], SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
        setsockopt(pair[i], SOL_SOCKET, SO_SNDBUF, &size, sizeof(size));
    }
    return true;
}

void Floor(benchmark::State& state) {
    const RoundTripShape shape(state);
    CpuPinning pinning(shape.pinned);
    int pair[2];
    if (!pinning.ok() || !makeSocketPair(pair)) {
        state.SkipWithError("cannot pin or make the socket pair");
        return;
    }
    ForkedPeer server([&] {
        close(pair[0]);
        IdleSockets idle(shape.idle);
        if (!idle.ok()) {
            return 1;
        }
        return raw::serveEcho(pair[1], idle.watched().data(), idle.watched().size());
    });
    close(pair[1]);
    const int client = pair[0];

    SentDescriptors sent(shape.fds);
    std::vector<uint8_t> data(shape.payload, 0x5a);
    std::vector<uint8_t> reply(raw::kMaxData);
    uint8_t header[raw::kHeaderSize];
    raw::packHeader(
            {7, 1, 0, static_cast<uint32_t>(shape.payload), static_cast<uint16_t>(shape.fds)},
            header);

    // The first exchange (the server's first wake) is not measured.
    bool ok = raw::roundTrip(client, header, data.data(), data.size(), sent.fds().data(),
                             sent.fds().size(), reply.data());
    for (auto _ : state) {
        if (!ok || !raw::roundTrip(client, header, data.data(), data.size(), sent.fds().data(),
                                   sent.fds().size(), reply.data())) {
            state.SkipWithError("round trip failed");
            break;
        }
    }

    uint8_t stop[raw::kHeaderSize];
    raw::packHeader({0, raw::kStopType, 0, 0, 0}, stop);
    (void)raw::sendRecord(client, stop, sizeof(stop), nullptr, 0);
    (void)raw::sendRecord(client, nullptr, 0, nullptr, 0);
    const bool joined = server.join();
    close(client);
    if (!joined && !state.error_occurred()) {
        state.SkipWithError("the serving process failed");
    }
}

BENCHMARK(Floor)->Apply(addRoundTripCases);

}  // namespace
}  // namespace velacam::bench
