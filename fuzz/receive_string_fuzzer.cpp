// SocketEventHandler::receiveString against whatever a peer can put on the
// socket (see support/HostilePeer.h for what the input scripts): it must never
// crash, return more than a header could announce, or leave a descriptor
// open, since a string hands none to its caller.
#include <ipc/EventHandler.h>
#include <ipc/SocketEventHandler.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>
#include <utility>

#include "support/FuzzInput.h"
#include "support/HostilePeer.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    velacam::fuzz::DiscardingLogger::install();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::set<int> before = velacam::fuzz::openDescriptors();
    {
        velacam::fuzz::FuzzInput input(data, size);
        velacam::fuzz::PlayedPeer played = velacam::fuzz::playHostilePeer(input);
        Kestrel::ipc::SocketEventHandler handler(std::move(played.receiver),
                                                 Kestrel::ipc::EventType::READ);
        const std::string text = handler.receiveString();
        if (text.size() > velacam::fuzz::kMaxDeclaredData) {
            std::fprintf(stderr, "string of %zu bytes, more than a header announces\n",
                         text.size());
            std::abort();
        }
    }
    velacam::fuzz::expectSameDescriptors(before, velacam::fuzz::openDescriptors());
    return 0;
}
