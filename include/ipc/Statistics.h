// Statistics: counters of the library's connections, reactors, loops and
// reply registries, read from any thread at any time.
//
// Counting is off until Statistics::enable(true), process-wide, or from the
// start in a process started with VELACAM_STATS=1 in its environment (which
// its children inherit). While on, each connection (a socket bound to a
// descriptor, directly or inside a SocketEventHandler) counts what it sends
// and receives; each DefaultReactor its cycles, dispatches, hang-ups and
// longest handler run; each MessageLoop its dispatches, its queue's
// high-water mark and the delay from enqueue to dispatch; each CBRegistry its
// pending replies and the age of the oldest. What happened while counting
// was off is not counted. A connection's counters start from zero when a
// socket is bound to its descriptor and stay readable after it closes, until
// the number is bound again. A send or receive is counted when it returns.
//
// Ownership: the figures live in tables beside the objects (no class grew);
// what you read is a copy. Thread: any; reading never stops or locks the
// owner of the figures (a loop's or registry's table lock is held only while
// figures are copied).
//
// Cost: off, each send and receive pays one load and a branch (7
// instructions) and each reactor cycle 16: at most 44 of the 3,485
// instructions of a 64-byte round trip (docs/performance.md). On, a send or
// receive adds a few relaxed atomic additions (about 200 instructions each),
// a dispatch and a handler run two clock reads, an enqueue and a reply
// registration a short locked map update.
// Failure: none; descriptors from 65536 on are not counted.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

#include "ipc/Export.h"

namespace Kestrel::ipc {

class CBRegistry;
class DefaultReactor;
class MessageLoop;

struct ConnectionStatistics {
    // Why a send was refused (the message did not go): its result code.
    enum RefusalReason : size_t {
        kTooManyDescriptors,  // -EINVAL: more descriptors than one record carries
        kTooLarge,            // -EMSGSIZE: more data than one record carries
        kWouldBlock,          // -EAGAIN: the peer's buffer stayed full
        kTimedOut,            // -ETIMEDOUT: the send's wait ran out
        kPeerGone,            // -EPIPE, -ECONNRESET: nobody reads the other end
        kNotBound,            // -ENOENT: the socket has no descriptor
        kOther,               // any other failure of the send
        kRefusalReasons
    };
    uint64_t sentMessages = 0;
    uint64_t sentBytes = 0;  // data bytes of the messages sent
    uint64_t sentDescriptors = 0;
    uint64_t receivedMessages = 0;
    uint64_t receivedBytes = 0;
    uint64_t receivedDescriptors = 0;
    uint64_t refused[kRefusalReasons] = {};
    uint64_t receiveFailures = 0;     // receives that returned a negative code
    uint64_t payloadWaitsRanOut = 0;  // a payload record that did not come (or go) in time
    uint64_t outOfStep = 0;           // a header without its payload: the connection is lost
    uint64_t descriptorsDropped = 0;  // descriptors a receive closed instead of handing over
    uint64_t largestRecord = 0;       // data bytes of the largest message sent or received
};

struct ReactorStatistics {
    uint64_t cycles = 0;      // waits that returned ready descriptors
    uint64_t dispatches = 0;  // handleEvent() calls
    uint64_t hangUps = 0;     // POLLHUP reports
    std::chrono::nanoseconds longestHandlerRun{0};
};

struct LoopStatistics {
    uint64_t enqueued = 0;    // messages enqueued while counting
    uint64_t dispatched = 0;  // messages dispatched while counting
    uint64_t highWater = 0;   // most messages waiting at once
    // Enqueue to dispatch: percentiles from a histogram of power-of-two
    // buckets (each the upper bound of its bucket, so within a factor of two
    // and never below the true value), and the exact maximum.
    std::chrono::nanoseconds delayP50{0};
    std::chrono::nanoseconds delayP99{0};
    std::chrono::nanoseconds delayMax{0};
};

struct RegistryStatistics {
    uint64_t registered = 0;  // callbacks stored
    uint64_t replied = 0;     // callbacks called
    uint64_t pending = 0;     // stored and not yet called
    std::chrono::nanoseconds oldestPendingAge{0};
};

class IPC_EXPORT Statistics {
  public:
    // Turns counting on or off for the whole process. Thread: any.
    static void enable(bool on);
    static bool enabled();

    // The counters of the connection on descriptor `fd` (all zero if it was
    // never counted).
    static ConnectionStatistics connection(int fd);
    static ReactorStatistics of(const DefaultReactor& reactor);
    static LoopStatistics of(MessageLoop& loop);
    static RegistryStatistics of(const CBRegistry& registry);
};

}  // namespace Kestrel::ipc
