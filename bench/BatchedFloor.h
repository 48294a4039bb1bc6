// BatchedFloor: the raw floor with one system call per message each way.
//
// The same two records per message as RawFloor (the 24-byte header with an
// empty SCM_RIGHTS control message, then the data with the descriptors), but
// sent together with one sendmmsg() and received together with one
// recvmmsg(). The receiver knows the data size and descriptor count of every
// message beforehand (both sides are set up with them), which the library's
// receiver, reading the counts from the header, cannot. It is the lower bound
// for a sender that batches its two records. The serving side waits with one
// ppoll() per message (RawFloor's ServerWait), echoes the message back and
// closes the descriptors it received.
//
// With Guards::kLibraryDefaults the floor also does what the library's
// receive path does by default to guard itself against a faulty peer, so that
// the price of those guards can be told apart from the library's own work:
// its waits for a record are bounded (SO_RCVTIMEO, set on both sockets by the
// caller with setReceiveBound), the data record is read into the room a new
// message has behind its header followed by a buffer up to the library's
// inline maximum of 64 KiB (a longer record comes back cut), with
// control room for the most descriptors a record can carry (what a receiver
// must offer for a record whose header it has not read yet), and the serving
// side polls an eventfd beside its socket, last, as the reactor polls its
// exit descriptor.
// Thread: one thread per socket end. Failure: false (or 1 from the server).
#pragma once

#include <cstddef>
#include <cstdint>

namespace velacam::bench::raw {

enum class Guards { kNone, kLibraryDefaults };

// The room a new message of the library has behind its header (256 bytes
// reserved, less the header): a guarded receiver's reply buffer holds at
// least this much.
inline constexpr size_t kGuardedRoom = 256 - 24;

// Bounds every blocking receive on `socket` to 1 s, the library's default
// payload wait. True when set.
bool setReceiveBound(int socket);

// Both records of a message with one sendmmsg(). True when both went out.
bool sendPair(int socket, const uint8_t* header, const void* data, size_t dataSize, const int* fds,
              size_t fdCount);

// Client side of one round trip: sends the request with sendPair, receives
// the reply (`dataSize` bytes into `replyData`, `fdCount` descriptors) with
// one recvmmsg() and closes the descriptors that came back. True when the
// reply carried as many descriptors as were sent.
bool roundTripBatched(int socket, const uint8_t* header, const uint8_t* data, size_t dataSize,
                      const int* fds, size_t fdCount, uint8_t* replyData,
                      Guards guards = Guards::kNone);

// Serving side for messages of `dataSize` bytes and `fdCount` descriptors:
// waits on `socket` and the idle descriptors, echoes every message, ends on a
// stop header (sent as a pair with an empty data record). Returns 0 on a stop
// header, 1 on any failure.
int serveEchoBatched(int socket, const int* idle, size_t idleCount, size_t dataSize, size_t fdCount,
                     Guards guards = Guards::kNone);

}  // namespace velacam::bench::raw
