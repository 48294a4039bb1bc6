// UnixDomainSocket: moves Messages between processes over one end of a
// connected pair of local sequenced-packet sockets, passing descriptors with
// SCM_RIGHTS.
//
// Wire format: every message is exactly two records:
//   1. the 24 header bytes as the message stores them (host byte order), with
//      an SCM_RIGHTS control message carrying no descriptor;
//   2. dataCount payload bytes (possibly none) with an SCM_RIGHTS control
//      message carrying the fileDescriptorCount descriptors in payload order.
// send(Message) puts both on the wire with one sendmmsg(2), straight from the
// message's storage; recv(Message*) reads record 1 into the message's header
// and record 2 straight into the storage the message then takes over.
//
// recv(Message*) takes both records with one recvmmsg(2) while the payload
// wait is bounded and the socket's payloads stay below 64 KiB. The payload
// record goes into room the size of the socket's last payload (at least a
// new message's 232 bytes) and, past it, into address space the receiving
// thread reserves once: 2 GiB, longer than any record the kernel moves, so
// no record is ever cut short, however large its sender made its buffers.
// What spilled is copied into the message, room left unused is given back,
// and the reservation keeps at most 64 KiB of memory after use. After a
// payload of 64 KiB or more the next 8 messages are read a record at a time,
// the second into storage sized from the header, as every message is where
// the reservation cannot be made (an address-space limit, a 32-bit process).
// So each thread that receives messages shows 2 GiB more virtual size
// (VmSize), not resident.
//
// Ownership: the object owns its socket descriptor (closed on destruction).
// Descriptors sent stay owned by the sender; descriptors received are new
// numbers owned by the caller, or closed here when the record is refused.
//
// Thread: no lock. Each direction has one user at a time: a message is two
// records, and two concurrent senders (or receivers) would interleave them.
// Calls block; wait for readiness with getPoller(). Only the wait for the
// second record of a message is bounded (setPayloadTimeout).
//
// Failure: every int result is 0 or a negative errno value, never a byte
// count: -2 when unbound, -11 when the socket would block, -errno of sendmsg
// or recvmsg otherwise; the receive adds the refusals listed at
// receiveDataAndFileDescriptors(). End of stream is not detected: a record
// read from a closed peer is 0 bytes long and, when no descriptor was
// expected, reported as success with the buffers unchanged.
//
// A message is all or nothing on the wire. send(Message) refuses, before
// anything goes, what the kernel would refuse of the payload record: more
// than 253 descriptors (-22 EINVAL, the kernel's own code for it) or more
// data than one record of this socket carries (SO_SNDBUF less 32 bytes,
// -90 EMSGSIZE; the buffer is read only for payloads above 4 KiB, which
// every send buffer carries). Once the header is out, its payload record
// follows, or the result is -103 ECONNABORTED: the connection is out of step
// (the peer would take the next header for a payload) and must be closed.
//
// Sizes the peer decides are not trusted with memory. recv(Message*) takes
// what the payload record really holds into account before it allocates:
// its length is known once both records came in one call; read a record at
// a time, above 1 MiB announced, the record is measured first
// (MSG_PEEK|MSG_TRUNC).
//   - A record shorter than announced: up to 1 MiB announced, the missing
//     data reads as zeros and the result is 0 (a peer gone
//     between the two records reads as an empty record); above, the record
//     is consumed, its descriptors closed, and the result is -74 EBADMSG.
//   - A record longer than announced is cut to the announced size; the rest
//     is dropped.
//   - Descriptors: at most 253 can arrive in one record, so that is all the
//     control buffer holds; a header announcing more gets the ones that
//     came and -1 in the other slots (4 bytes each in the message).
//   - Memory that cannot be had: the record is consumed, its descriptors
//     closed, and the result is -12 ENOMEM. No exception leaves a receive.
// In each failure the message keeps the new header and its old payload.
//
// A peer that stalls between its two records: the receive of the payload
// waits at most the payload time-out (1 s unless set; twice that when both
// records were asked for in one call, whose wait for the payload record is
// followed by one of its own), then returns -103 ECONNABORTED: the header is
// consumed, the connection is out of step and must be closed. A peer that
// closes meanwhile ends the wait at once. The bound is the socket's receive
// time-out (SO_RCVTIMEO, set by bind() and setPayloadTimeout()), so that the
// blocking receive carries it at no extra call; every other receive here
// waits on past it, but whoever reads the descriptor directly sees it. A
// signal that cuts the wait for a payload record short loses nothing: the
// wait goes on.
//
// Compatibility: kept as existing peers and log readers rely on it. End of
// stream is not detected, a payload record shorter than announced (up to
// 1 MiB) reads as zeros with result 0, and a record that brings only some of
// its descriptors stands (result 0). recv(Message::Payload*) given null logs
// "The data size is not aligned to sizeof(int)". The debug lines of a
// message's two records name sendDataAndFileDescriptors and
// receiveDataAndFileDescriptors.
//
// Observation (ipc/Statistics.h, ipc/Tracing.h): each send(message) and
// recv(message) is counted and traced while that is on; off, it costs one
// test, 7 instructions.
#pragma once

#include <ipc/Message.h>
#include <ipc/Poller.h>
#include <ipc/SocketPair.h>
#include <sys/socket.h>
#include <sysutils/FileDescriptor.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <limits>

#include "ipc/Export.h"

namespace Kestrel::ipc {

class RecordPair;
class SpillRegion;

class IPC_EXPORT UnixDomainSocket {
  public:
    // Makes a connected AF_UNIX SOCK_SEQPACKET pair (blocking, without
    // close-on-exec) for a main direction from `second` to `first`: first's
    // receive and second's send buffers get the sizes given. The reverse
    // direction gets the same sizes, or 4096 bytes each when `oneWay`. The
    // kernel doubles what it is given.
    // On failure the result holds (-errno, -1) and nothing stays open.
    static SocketPair createPairedSocket(unsigned long receiveBufferSize,
                                         unsigned long sendBufferSize, bool oneWay);

    // Unbound: every send and receive returns -2 until bind().
    UnixDomainSocket() = default;
    virtual ~UnixDomainSocket();

    // Takes ownership of `fd`, closing the descriptor held before, if any.
    void bind(Kestrel::utils::sys::FileDescriptor&& fd);
    bool isBound() const;

    // How long a message's payload record may keep its receiver waiting once
    // the header has arrived; also how long a send whose payload record could
    // not follow its header at once (a non-blocking socket with a full
    // buffer) retries it. 0 waits without limit, and recv(Message*) then
    // reads a message a record at a time; a negative time-out is taken as 0,
    // one longer than a year (milliseconds::max(), say) as a year. Set
    // before the socket is in use, or from the thread that receives on it.
    void setPayloadTimeout(std::chrono::milliseconds timeout);

    // Sends `message` as its two records; `message` keeps its descriptors.
    // A peer that has gone away gives -32 (EPIPE); no SIGPIPE is raised.
    // Refusals and -103 ECONNABORTED: see the top of this file.
    // Blocks: while the peer's receive buffer is full.
    [[nodiscard]] int send(const Message& message);
    // Sends one record: the payload's data with its descriptors attached.
    [[nodiscard]] int send(const Message::Payload& payload);

    // Receives two records into `*message`: the header in place, then a
    // payload of the sizes it announces, which replaces the old one. When the
    // payload record is refused the message keeps the new header and its old
    // payload. -14 for a null message. What a record shorter or longer than
    // announced gives, and the bounded wait for it: see the top of this file.
    // When only some of the announced descriptors arrive (see
    // receiveDataAndFileDescriptors) the result is 0 and the payload's fds
    // hold the k that arrived followed by -1 for each one lost, so a handler
    // closing them all (the default MessageHandler does) closes only what
    // arrived; the header still announces every descriptor sent.
    // A peer that closes between the two records: the payload read sees end
    // of stream, which is -61 when descriptors were announced, and 0 with
    // the new payload's data bytes all zero when none were (up to 1 MiB).
    // Blocks: until the peer sends or closes. The message must not be used
    // meanwhile.
    [[nodiscard]] int recv(Message* message);
    // Receives one record into the payload's existing buffers: the caller
    // sizes `data` and `fds` beforehand. -14 for a null payload.
    [[nodiscard]] int recv(Message::Payload* payload);

    // Sends one record of `dataSize` bytes with an SCM_RIGHTS control message
    // carrying `fdCount` descriptors (none allowed). The kernel's own limit on
    // descriptors per message (253) shows as -22 (EINVAL).
    [[nodiscard]] int sendDataAndFileDescriptors(const int* fds, size_t fdCount, const void* data,
                                                 size_t dataSize);

    // Receives one record into `data` (at most `dataSize` bytes; a longer
    // record is cut short, a shorter one leaves the rest untouched) and up to
    // `fdCount` descriptors into `fds`.
    // With `fdCount` 0 no descriptor is taken (any the peer attached is
    // discarded by the kernel) and the result is 0.
    // With `fdCount` > 0 the record should bring `fdCount` descriptors in one
    // SCM_RIGHTS message; on 0 they are in fds[0..fdCount) and belong to the
    // caller. When only some arrived, the result is 0 all the same: the k
    // that arrived (the first k sent) are in fds[0..k) and belong to the
    // caller, fds[k..fdCount) keep what the caller put there, and the error
    // "The number of received fds(k) is less than expected(fdCount)" is
    // logged. That is what a receiver at its open-file limit (RLIMIT_NOFILE)
    // gets: the kernel installs what fits, closes the rest and sets
    // MSG_CTRUNC. Pre-fill `fds` with -1 to tell the lost ones.
    // Otherwise the record is refused:
    //   -61 ENODATA   none arrived: the peer sent none, it has closed (a read
    //                 of 0 bytes), or this process had no free descriptor
    //                 number left;
    //   -90 EMSGSIZE  more arrived than expected, or the peer sent more than
    //                 the control buffer could hold;
    //   -74 EBADMSG   a control message other than SCM_RIGHTS came along
    //                 (credentials when SO_PASSCRED is set on this socket,
    //                 say), or the descriptor message is malformed.
    // On a refusal every descriptor that arrived is closed and all of
    // fds[0..fdCount) are -1. Nothing is ever written past fds[fdCount - 1].
    [[nodiscard]] int receiveDataAndFileDescriptors(int* fds, size_t fdCount, void* data,
                                                    size_t dataSize);

    // A new Poller holding this socket's descriptor with `events`.
    Poller getPoller(short events) const;

    // The most data bytes one message carries inline; frames travel as
    // descriptors. A record of this size still needs no kernel allocation
    // larger than four pages, so it goes through on a device whose memory is
    // fragmented.
    static constexpr size_t kMaxInlineData = size_t{64} * 1024;

  private:
    static constexpr std::chrono::milliseconds kDefaultPayloadTimeout{1000};

    // recv(Message*) with one recvmmsg for both records (the payload record
    // straight into `storage`, any part beyond its room into `spill`;
    // `inPlace` when `storage` is the message's own), or with a recvmsg for
    // each, the second sized from the header.
    [[nodiscard]] int receiveBoth(Message* message, Message::Storage& storage, bool inPlace,
                                  SpillRegion& spill);
    [[nodiscard]] int receiveOneByOne(Message* message, Message::Storage& storage);
    // The payload record that recvmmsg brought, put in its place in `storage`
    // behind the header, with its descriptors.
    [[nodiscard]] int placePayload(Message::Storage& storage, RecordPair& records,
                                   const Message::Counts& counts);
    // The payload record of the `header` (which may lie in `storage`) with a
    // recvmsg of its own.
    [[nodiscard]] int receivePayloadAlone(Message::Storage& storage, const uint8_t* header,
                                          const Message::Counts& counts);
    // A payload that failed with `result`: a message receiving in place is
    // cut back to its new header, and the receive's failure is logged.
    static int payloadFailed(Message::Storage& storage, int result);
    // The second half of recv(Message*): the payload record into `storage`,
    // which gets the `header` bytes in front.
    [[nodiscard]] int receivePayload(Message::Storage& storage, const uint8_t* header,
                                     uint32_t dataCount, uint16_t fdCount);
    // Remembers how large the payloads on this socket run: the room for the
    // next one in a single call is the last one's size. After a payload of
    // kOneCallLargest bytes or more, the next kOneByOneAfterLarge messages are
    // read a record at a time, each into storage sized from its header.
    void noteReceivedPayload(const Message::Counts& counts);
    static constexpr size_t kOneCallLargest = std::numeric_limits<uint16_t>::max();
    static constexpr uint8_t kOneByOneAfterLarge = 8;
    // The payload record of a send whose header alone went out.
    [[nodiscard]] int sendPayloadAfterHeader(const ::msghdr& payload);
    // send(message) and recv(message) as the wire sees them; the public ones
    // add the counting and tracing of the library's observation.
    [[nodiscard]] int sendRecords(const Message& message);
    [[nodiscard]] int receiveRecords(Message* message);
    // Makes the payload time-out the socket's receive time-out (SO_RCVTIMEO).
    void applyPayloadTimeout();

    Kestrel::utils::sys::FileDescriptor mSocketFd;  // -1 until bound
    // Both sit where the alignment of the next member left room: messages
    // still to be read a record at a time, and the last payload's bytes
    // (data and descriptors) when it was below kOneCallLargest.
    uint8_t mLargePayloadsLately = 0;
    uint16_t mLastPayloadBytes = 0;
    std::chrono::milliseconds mPayloadTimeout{kDefaultPayloadTimeout};
};

}  // namespace Kestrel::ipc
