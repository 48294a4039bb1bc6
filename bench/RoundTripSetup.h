// What the round-trip benchmarks share: the shape of a case (payload size,
// descriptors carried, idle handlers beside the served socket, pinned or
// free), the descriptors a request carries, and the idle sockets.
//
// Every round trip is one request and its reply across two processes; the
// reply is the request echoed, descriptors included, and each side closes the
// descriptors it received, so client and server both pay for descriptor
// passing in both directions.
#pragma once

#include <benchmark/benchmark.h>

#include <cstddef>
#include <utility>
#include <vector>

namespace velacam::bench {

// Socket buffer sizes, both directions, for the floors and the library
// alike. The kernel doubles the value asked for (to 512 KiB here), caps the
// request at net.core.wmem_max / rmem_max (4 MiB on these machines; only
// SO_SNDBUFFORCE as root goes past it, which neither side uses), and refuses
// a sequenced-packet record larger than the send buffer with EMSGSIZE.
inline constexpr unsigned long kSocketBufferSize = 262144;
// The largest record a case sends: the 64 KiB data record, the most data a
// message of the library carries (UnixDomainSocket::kMaxInlineData).
inline constexpr size_t kLargestRecord = 65536;

// True when `socket`'s send buffer, as the kernel granted it, takes a record
// of `bytes` (with the kernel's per-record overhead).
bool socketHolds(int socket, size_t bytes);

struct RoundTripShape {
    explicit RoundTripShape(const benchmark::State& state)
        : payload(static_cast<size_t>(state.range(0))),
          fds(static_cast<size_t>(state.range(1))),
          idle(static_cast<size_t>(state.range(2))),
          pinned(state.range(3) != 0) {}

    size_t payload;
    size_t fds;
    size_t idle;
    bool pinned;
};

// Registers the cases: payload 64 B and 4 KiB with 0, 1, 4 and 16
// descriptors, then 64 B with 16 and 256 idle handlers; each free and pinned.
void addRoundTripCases(benchmark::internal::Benchmark* benchmark);
// Registers the large-message case: 64 KiB (the most a message carries
// inline) without descriptors, free and pinned.
void addLargeCases(benchmark::internal::Benchmark* benchmark);
// Registers the one case a peer is compared on: 64 B, no descriptors, no idle
// handlers; free and pinned.
void addPeerCases(benchmark::internal::Benchmark* benchmark);
// Registers the cases the targets name: 64 B with 0 and 1 descriptor, no
// idle handlers; free and pinned.
void addTargetCases(benchmark::internal::Benchmark* benchmark);

// `count` descriptors open on /dev/null, closed on destruction.
class SentDescriptors {
  public:
    explicit SentDescriptors(size_t count);
    ~SentDescriptors();
    SentDescriptors(const SentDescriptors&) = delete;
    SentDescriptors& operator=(const SentDescriptors&) = delete;

    const std::vector<int>& fds() const { return mFds; }

  private:
    std::vector<int> mFds;
};

// `count` connected socket pairs nobody writes to: `watched()` are the ends
// a server polls (never readable), the other ends stay open so that no
// hang-up is reported. Everything still held is closed on destruction.
class IdleSockets {
  public:
    explicit IdleSockets(size_t count);
    ~IdleSockets();
    IdleSockets(const IdleSockets&) = delete;
    IdleSockets& operator=(const IdleSockets&) = delete;

    bool ok() const { return mOk; }
    const std::vector<int>& watched() const { return mWatched; }
    // Gives up the watched ends to a new owner (the idle handlers).
    std::vector<int> releaseWatched() { return std::exchange(mWatched, {}); }

  private:
    bool mOk = true;
    std::vector<int> mWatched;
    std::vector<int> mQuiet;
};

}  // namespace velacam::bench
