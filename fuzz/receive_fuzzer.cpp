// The receive path against whatever a peer can put on the socket: a header
// record and a payload record of arbitrary bytes, any number of descriptors on
// either, credentials, a missing record, an end of stream in the middle, a
// stall between the records, a header that lies about the payload's size.
// recv(Message*) must never crash or read out of bounds, never take much more
// memory than the peer sent, never wait past its payload time-out, and after each input
// no descriptor may remain open that was not handed to the caller: the ones
// the received payload lists are checked to be new and open, then closed, and
// the process must be left with exactly the descriptors it had before.
#include <fcntl.h>
#include <ipc/Message.h>
#include <ipc/UnixDomainSocket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
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

// Data the peer never sent reads as zeros only where it closed between the
// two records, and then for at most the inline maximum announced.
constexpr size_t kZeroFilledUpTo = Kestrel::ipc::UnixDomainSocket::kMaxInlineData;

// The payload time-out of the receiving socket: a stalled peer costs an input
// this long.
constexpr std::chrono::milliseconds kPayloadTimeout{1};

// Checks what a successful receive handed over, then closes the descriptors.
void takeDelivery(const Message& message, size_t payloadBytes, const std::set<int>& before) {
    const Message::Payload payload = message.payload();
    if (!payload.data.empty() && payload.data.size() != message.dataCount()) {
        fail("payload data does not have the announced size",
             static_cast<long>(payload.data.size()));
    }
    if (payload.data.size() > std::max(payloadBytes, kZeroFilledUpTo)) {
        fail("more data than the peer sent", static_cast<long>(payload.data.size()));
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
        velacam::fuzz::PlayedPeer played =
                velacam::fuzz::playHostilePeer(input, velacam::fuzz::Stalling::kAllowed);
        UnixDomainSocket socket;
        socket.bind(std::move(played.receiver));
        socket.setPayloadTimeout(kPayloadTimeout);
        Message message;
        const auto start = std::chrono::steady_clock::now();
        const int result = socket.recv(&message);
        if (std::chrono::steady_clock::now() - start > kPayloadTimeout + std::chrono::seconds(5)) {
            fail("the receive waited past its payload time-out", result);
        }
        if (result > 0) {
            fail("receive returned a positive value", result);
        }
        if (result == 0) {
            takeDelivery(message, played.payloadBytes, before);
        }
    }
    velacam::fuzz::expectSameDescriptors(before, velacam::fuzz::openDescriptors());
    return 0;
}
