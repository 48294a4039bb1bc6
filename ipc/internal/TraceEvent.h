// One traced piece of work: what it was, when it began and ended, and the
// message it concerned. Library-internal.
#pragma once

#include <cstdint>

namespace Kestrel::ipc::observe {

enum class TraceKind : uint8_t {
    kSend,
    kReceive,
    kHandlerRun,
    kDispatch,
    kReplyCallback,
    kReplyToCall,
};

// The message a traced piece of work concerned, as its header said.
struct TracedMessage {
    uint32_t id = 0;
    uint32_t type = 0;
    uint32_t flags = 0;
    uint32_t dataBytes = 0;
    uint32_t descriptors = 0;
};

struct TraceEvent {
    TraceKind kind;
    int64_t beginNs;
    int64_t endNs;
    int fd;      // the socket or handler's descriptor; -1 when none
    int result;  // the send's or receive's result; 0 otherwise
    bool hasMessage;
    TracedMessage message;
};

const char* nameOf(TraceKind kind);

// The flow that links one message's send to its receive and dispatch in the
// other process: the same for both ends, different for a request and its
// reply (which share the id).
inline uint64_t flowOf(const TracedMessage& message, uint32_t replyFlag) {
    return ((uint64_t{message.type} << 32 | message.id) << 1) | ((message.flags & replyFlag) != 0);
}

}  // namespace Kestrel::ipc::observe
