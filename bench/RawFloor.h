// RawFloor: the message path written with nothing but system calls, as the
// reference every round trip of the library is measured against.
//
// It moves messages in the library's wire format: two sequenced-packet
// records per message, the 24-byte header with an empty SCM_RIGHTS control
// message, then the data with the descriptors as SCM_RIGHTS. The serving side
// waits with one ppoll() per message, reads both records, sends both back
// (the reply is the request echoed, descriptors included) and closes the
// descriptors it received. Nothing here allocates or logs once the server
// waits. BatchedFloor.h moves the same records with one call each way; with
// SendCalls::kOne the records go out with BatchedFloor's one sendmmsg() and
// are still read with a recvmsg() each, the header first: the fastest a
// receiver can be that learns the data size and descriptor count from the
// header, as the library's must.
// Thread: one thread per socket end. Failure: false (or a negative value).
#pragma once

#include <poll.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace velacam::bench::raw {

inline constexpr size_t kHeaderSize = 24;
inline constexpr size_t kMaxFds = 16;
// The largest data record the benchmarks send: the library's inline maximum.
inline constexpr size_t kMaxData = 65536;
// A header of this type asks the serving side to end.
inline constexpr uint32_t kStopType = 0x53544f50;

// How a side sends a message's two records: a sendmsg() each, or both with
// one sendmmsg().
enum class SendCalls { kPerRecord, kOne };

struct Header {
    uint32_t id = 0;
    uint32_t type = 0;
    uint32_t flags = 0;
    uint32_t dataCount = 0;
    uint16_t fdCount = 0;
};

void packHeader(const Header& header, uint8_t* bytes);
Header unpackHeader(const uint8_t* bytes);

// One record: `size` bytes and `fdCount` descriptors in one SCM_RIGHTS
// message (an empty one when fdCount is 0). True when sendmsg() succeeded.
bool sendRecord(int socket, const void* data, size_t size, const int* fds, size_t fdCount);

// One record into `data` (room for `size` bytes) with room for `fdCount`
// descriptors; returns the number received, or -1.
int receiveRecord(int socket, void* data, size_t size, int* fds, size_t fdCount);

// The descriptors of the SCM_RIGHTS messages of a received `header`, into
// `fds` (room for `room`); any beyond are closed. Returns the number kept.
int takeDescriptors(msghdr& header, int* fds, size_t room);

// Closes the `count` descriptors of `fds`.
void closeAll(const int* fds, int count);

// Client side of one round trip: sends the request (header, then data with
// `fds`) with `sends`, then receives the reply into `replyData` and closes
// the descriptors that came back. True when all four records went through.
bool roundTrip(int socket, SendCalls sends, const uint8_t* header, const uint8_t* data,
               size_t dataSize, const int* fds, size_t fdCount, uint8_t* replyData);

// Serving side: until a stop header arrives (a header record alone) or the peer goes away, waits
// with ppoll() on `socket` and on the `idleCount` descriptors of `idle` (watched but never ready,
// as idle handlers would be) and echoes each message back with `sends`. Returns 0 on a stop
// header, 1 on any failure.
int serveEcho(int socket, const int* idle, size_t idleCount, SendCalls sends);

// The serving side's wait: one ppoll() on the served socket and on idle
// descriptors that are watched but never ready (as idle handlers would be),
// in ascending descriptor order as the reactor polls its handlers (the kernel
// stops queueing waiters once it meets a ready descriptor, so the order
// changes what a wait costs). A `last` descriptor (not -1) is polled after
// all the others, as the reactor polls its exit descriptor.
class ServerWait {
  public:
    ServerWait(int socket, const int* idle, size_t idleCount, int last = -1);
    // True once the served socket is readable; false on any other outcome.
    bool wait();

  private:
    std::vector<pollfd> mWatched;
    size_t mServed = 0;
};

}  // namespace velacam::bench::raw
