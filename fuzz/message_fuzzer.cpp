// Message headers and payloads: setHeader / setPayload / payload() round trips
// with arbitrary counts and bytes must never read or write outside the
// message's storage, and a payload that was set must come back as it was.
#include <ipc/Message.h>

#include <cstdint>
#include <cstdlib>
#include <vector>

#include "support/FuzzInput.h"

using Kestrel::ipc::Message;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    velacam::fuzz::DiscardingLogger::install();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    velacam::fuzz::FuzzInput in(data, size);
    Message message;

    // A raw 24-byte header as a peer would send it.
    message.setHeader(in.bytes(Message::kHeaderSize));
    (void)message.payload();  // counts that overstate the (absent) payload

    Message::Payload payload;
    payload.data = in.bytesUpTo(in.take<uint16_t>() % 4096);
    const size_t fdCount = in.take<uint8_t>();
    for (size_t i = 0; i < fdCount; ++i) {
        payload.fds.push_back(in.take<int32_t>());
    }
    // Counts left over from an earlier header stay when a block is empty, so
    // the exact round trip is checked from zeroed counts.
    message.setHeader(0, 0);
    message.setPayload(payload);
    const Message::Payload back = message.payload();
    if (back.data != payload.data || back.fds != payload.fds) {
        std::abort();
    }

    // Counts rewritten after the payload was packed: reads stay in bounds.
    message.setHeader(in.take<uint32_t>(), in.take<uint16_t>());
    (void)message.payload();

    Message moved(std::move(message));
    Message other;
    other = std::move(moved);
    (void)other.payload();
    return 0;
}
