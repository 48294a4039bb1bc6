// Message headers and payloads: setHeader / setPayload / payload() round trips
// with arbitrary counts and bytes must never read or write outside the
// message's storage, and a payload that was set must come back as it was.
#include <ipc/Message.h>
#include <ulog/ULogger.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

using Kestrel::ipc::Message;

// Takes `size` bytes from the front of the input, or fewer when it runs out.
struct Reader {
    const uint8_t* data;
    size_t left;

    template <typename T>
    T take() {
        T value{};
        const size_t n = left < sizeof(T) ? left : sizeof(T);
        std::memcpy(&value, data, n);
        data += n;
        left -= n;
        return value;
    }
    std::vector<uint8_t> bytes(size_t n) {
        n = n < left ? n : left;
        std::vector<uint8_t> out(data, data + n);
        data += n;
        left -= n;
        return out;
    }
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    Kestrel::Utils::ULog::ULogger::sMode = 0;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Reader in{data, size};
    Message message;

    // A raw 24-byte header as a peer would send it.
    std::vector<uint8_t> header = in.bytes(Message::kHeaderSize);
    header.resize(Message::kHeaderSize);
    message.setHeader(header);
    (void)message.payload();  // counts that overstate the (absent) payload

    Message::Payload payload;
    payload.data = in.bytes(in.take<uint16_t>() % 4096);
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
