// What the soak's processes agree on: the request and reply a well-behaved
// client and the server exchange, the faults a misbehaving client plays, the
// bounds the run is judged by, and the report each client leaves at exit.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace velacam::soak {

// A request: header id = the client's sequence number (from 1), type
// kRequestType, data = RequestBody, and RequestBody::fdCount memory files,
// the j-th holding descriptorTag(client, seq, j).
constexpr uint32_t kRequestType = 1;
// A reply: id = the request's, type kReplyType, the reply flag, one data byte
// of ReplyStatus.
constexpr uint32_t kReplyType = 2;
constexpr uint32_t kRequestMagic = 0x534f414b;  // "SOAK"

struct RequestBody {
    uint32_t client;
    uint32_t seq;
    uint32_t fdCount;
    uint32_t magic;
};

enum ReplyStatus : uint8_t {
    kReplyOk = 0,
    kReplyMalformed = 1,        // the body does not match the header
    kReplyDescriptorWrong = 2,  // a descriptor is missing or holds the wrong text
};

// The text the j-th descriptor of request `seq` of `client` holds.
int descriptorTag(char* out, size_t room, uint32_t client, uint32_t seq, uint32_t j);

// What one client process is told to be.
enum class Role : uint8_t {
    kWellBehaved,      // requests with descriptors, replies checked, latency bounded
    kRequesterToKill,  // requests as a well-behaved one; killed (SIGKILL) at a random moment
    kRequesterToStop,  // requests as a well-behaved one; stopped for seconds, then resumed
    kHalfSender,       // sends a header, then kills itself before the payload
    kStaller,          // stalls between the two records of its messages
    kLiar,             // headers that lie about the payload
    kFullDescriptors,  // messages carrying 253 descriptors, the most one record holds
    kDeaf,             // sends requests and never reads a reply
};
constexpr size_t kRoleCount = 8;
const char* roleName(Role role);

// The lies a kLiar client tells, one per message.
enum class Lie : uint8_t {
    kShortPayload,      // a payload record shorter than announced
    kLongPayload,       // a payload record longer than announced
    kHugeAnnouncement,  // 1 GiB announced, a few bytes sent
    kMissingFds,        // descriptors announced, none attached
    kExtraFds,          // more descriptors attached than announced
    kHeaderOnly,        // a header record, then the next header as its payload
};
constexpr size_t kLieCount = 6;
const char* lieName(Lie lie);

// Bounds. The server waits at most 1 s for a payload record (2 s when both
// records were asked for in one call) and 1 s for room to send a reply; each
// misbehaving client can cost it one such wait at a time, and this machine is
// shared, so a well-behaved request must be answered within
// kMisbehavingSlots x 3 s + 3 s.
constexpr size_t kWellBehavedClients = 3;
constexpr size_t kMisbehavingSlots = 3;
constexpr std::chrono::milliseconds kReplyBound{kMisbehavingSlots * 3000 + 3000};
// Requests a requester keeps in flight.
constexpr uint32_t kWindow = 4;
// Descriptors one message carries at most (the kernel's limit per record).
constexpr uint32_t kMaxDescriptors = 253;
// The server's resident memory at the end may exceed its start by this much
// (allocator caches, the largest message storage kept for reuse).
constexpr size_t kRssToleranceBytes = size_t{8} << 20;

// Error kinds counted per client: the negative errno values a send or receive
// may document, in a fixed order for the report.
constexpr int kCountedErrors[] = {-11, -12, -22, -32, -61, -74, -90, -103, -104, -110};
constexpr size_t kErrorKinds = sizeof(kCountedErrors) / sizeof(kCountedErrors[0]) + 1;
size_t errorSlot(int error);  // the index in kCountedErrors, or the last slot for others
const char* errorName(size_t slot);

// Written by every client that ends on its own, in one write(2) to the
// report pipe (below PIPE_BUF, so reports do not interleave).
struct ClientReport {
    uint32_t magic;
    uint32_t slot;
    Role role;
    uint8_t reserved[3];
    uint64_t requests;       // requests sent whole
    uint64_t replies;        // replies received and matched
    uint64_t failedReplies;  // replies whose status was not kReplyOk
    uint64_t sendErrors[kErrorKinds];
    uint64_t descriptorsSent;
    uint64_t stallsWithinBound;  // stalls between records shorter than the payload wait
    uint64_t stallsBeyondBound;  // and longer
    uint64_t lies[kLieCount];
    uint32_t latencyMaxMs;
    uint32_t latencyP99Ms;
    uint32_t latencyMedianMs;
    uint32_t violations;
    char firstViolation[200];
};
static_assert(sizeof(ClientReport) < 512);

}  // namespace velacam::soak
