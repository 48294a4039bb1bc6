// SocketEventHandler::receiveString against whatever a peer can put on the
// socket (see support/HostilePeer.h for what the input scripts): it must never
// crash, return more data than the peer sent (beyond what a short record
// reads as zeros), or leave a descriptor open, since a string hands none to
// its caller. The handler keeps its socket's default payload time-out, so the
// peer never stalls here; the receive target covers stalls.
#include <ipc/EventHandler.h>
#include <ipc/SocketEventHandler.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>
#include <utility>

#include "support/FuzzInput.h"
#include "support/HostilePeer.h"

namespace {
// A record shorter than announced reads as zeros up to this much announced
// data; above it the receive measures the record before it allocates.
constexpr size_t kZeroFilledUpTo = 1u << 20;
}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    velacam::fuzz::DiscardingLogger::install();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::set<int> before = velacam::fuzz::openDescriptors();
    {
        velacam::fuzz::FuzzInput input(data, size);
        velacam::fuzz::PlayedPeer played =
                velacam::fuzz::playHostilePeer(input, velacam::fuzz::Stalling::kNever);
        Kestrel::ipc::SocketEventHandler handler(std::move(played.receiver),
                                                 Kestrel::ipc::EventType::READ);
        const std::string text = handler.receiveString();
        if (text.size() > std::max<size_t>(played.payloadBytes, kZeroFilledUpTo)) {
            std::fprintf(stderr, "string of %zu bytes, more than the peer sent\n", text.size());
            std::abort();
        }
    }
    velacam::fuzz::expectSameDescriptors(before, velacam::fuzz::openDescriptors());
    return 0;
}
