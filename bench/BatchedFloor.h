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
// Thread: one thread per socket end. Failure: false (or 1 from the server).
#pragma once

#include <cstddef>
#include <cstdint>

namespace velacam::bench::raw {

// Both records of a message with one sendmmsg(). True when both went out.
bool sendPair(int socket, const uint8_t* header, const void* data, size_t dataSize, const int* fds,
              size_t fdCount);

// Client side of one round trip: sends the request with sendPair, receives
// the reply (`dataSize` bytes into `replyData`, `fdCount` descriptors) with
// one recvmmsg() and closes the descriptors that came back. True when the
// reply carried as many descriptors as were sent.
bool roundTripBatched(int socket, const uint8_t* header, const uint8_t* data, size_t dataSize,
                      const int* fds, size_t fdCount, uint8_t* replyData);

// Serving side for messages of `dataSize` bytes and `fdCount` descriptors:
// waits on `socket` and the idle descriptors, echoes every message, ends on a
// stop header (sent as a pair with an empty data record). Returns 0 on a stop
// header, 1 on any failure.
int serveEchoBatched(int socket, const int* idle, size_t idleCount, size_t dataSize,
                     size_t fdCount);

}  // namespace velacam::bench::raw
