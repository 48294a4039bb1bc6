// The counters of every connection, in a table indexed by the socket's
// descriptor number, so that no socket object grows. Library-internal.
//
// The table has a fixed top level of chunk pointers; a chunk of 64 slots is
// made the first time a descriptor in its range is counted and lives as long
// as the process. A slot is zeroed when a socket is bound to its number. Each
// figure is a relaxed atomic: written by the socket's sender or receiver,
// readable from any thread at any time. Descriptors from kLimit on are not
// counted.
#pragma once

#include <ipc/Statistics.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace Kestrel::ipc::observe {

struct ConnectionSlot {
    std::atomic<uint64_t> sentMessages{0};
    std::atomic<uint64_t> sentBytes{0};
    std::atomic<uint64_t> sentDescriptors{0};
    std::atomic<uint64_t> receivedMessages{0};
    std::atomic<uint64_t> receivedBytes{0};
    std::atomic<uint64_t> receivedDescriptors{0};
    std::atomic<uint64_t> refused[ConnectionStatistics::kRefusalReasons]{};
    std::atomic<uint64_t> receiveFailures{0};
    std::atomic<uint64_t> payloadWaitsRanOut{0};
    std::atomic<uint64_t> outOfStep{0};
    std::atomic<uint64_t> descriptorsDropped{0};
    std::atomic<uint64_t> largestRecord{0};

    void reset();
    void noteLargest(uint64_t bytes);
    ConnectionStatistics copy() const;
};

class ConnectionTable {
  public:
    static constexpr int kLimit = 65536;

    // The slot of `fd`, made if needed; null for a number out of range.
    static ConnectionSlot* slotFor(int fd);
    // The slot of `fd` if it was ever made; null otherwise.
    static const ConnectionSlot* find(int fd);
    // Zeroes the slot of `fd` if it exists (a new socket on a reused number).
    static void reset(int fd);
};

}  // namespace Kestrel::ipc::observe
