// The receive path against whatever a peer can put on the socket: a header
// record and a payload record of arbitrary bytes, any number of descriptors on
// either, credentials, a missing record, an end of stream in the middle.
// recv(Message*) must never crash or read out of bounds, and after each input
// no descriptor may remain open that was not handed to the caller: the ones
// the received payload lists are checked to be new and open, then closed, and
// the process must be left with exactly the descriptors it had before.
#include <fcntl.h>
#include <ipc/Message.h>
#include <ipc/UnixDomainSocket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <utility>

#include "support/FuzzInput.h"
#include "support/HostilePeer.h"

namespace {

using Kestrel::ipc::Message;
using Kestrel::ipc::UnixDomainSocket;
using velacam::fuzz::FuzzInput;

[[noreturn]] void fail(const char* what, long value) {
    std::fprintf(stderr, "%s (%ld)\n", what, value);
    std::abort();
}

// Checks what a successful receive handed over, then closes the descriptors.
void takeDelivery(const Message& message, const std::set<int>& before) {
    const Message::Payload payload = message.payload();
    if (!payload.data.empty() && payload.data.size() != message.dataCount()) {
        fail("payload data does not have the announced size",
             static_cast<long>(payload.data.size()));
    }
    if (payload.data.size() > velacam::fuzz::kMaxDeclaredData) {
        fail("more data than a header could announce", static_cast<long>(payload.data.size()));
    }
    if (payload.fds.size() != message.fileDescriptorCount()) {
        fail("descriptors handed over differ from the announced count",
             static_cast<long>(payload.fds.size()));
    }
    // The descriptors that arrived come first; a slot whose descriptor was
    // lost (the peer sent fewer than announced) holds -1.
    std::set<int> handed;
    bool lostOne = false;
    for (int fd : payload.fds) {
        if (fd == -1) {
            lostOne = true;
            continue;
        }
        if (lostOne || before.count(fd) != 0 || !handed.insert(fd).second ||
            ::fcntl(fd, F_GETFD) < 0) {
            fail("handed-over number is not a new open descriptor", fd);
        }
    }
    for (int fd : handed) {
        ::close(fd);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    velacam::fuzz::DiscardingLogger::install();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::set<int> before = velacam::fuzz::openDescriptors();
    {
        FuzzInput input(data, size);
        velacam::fuzz::PlayedPeer played = velacam::fuzz::playHostilePeer(input);
        UnixDomainSocket socket;
        socket.bind(std::move(played.receiver));
        Message message;
        const int result = socket.recv(&message);
        if (result > 0) {
            fail("receive returned a positive value", result);
        }
        if (result == 0) {
            takeDelivery(message, before);
        }
    }
    velacam::fuzz::expectSameDescriptors(before, velacam::fuzz::openDescriptors());
    return 0;
}
