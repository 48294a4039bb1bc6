// SocketEventHandler::receiveString against whatever a peer can put on the
// socket (see support/HostilePeer.h for what the input scripts): it must never
// crash, return more data than the peer sent (beyond the zeros of a peer gone
// between its two records), or leave a descriptor open, since a string hands none to
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
// Data the peer never sent reads as zeros only where it closed between the
// two records, and then for at most the inline maximum announced.
constexpr size_t kZeroFilledUpTo = Kestrel::ipc::UnixDomainSocket::kMaxInlineData;
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
