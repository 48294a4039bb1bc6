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
// A message carries at most kMaxInlineData (64 KiB) data bytes inline;
// frames travel as descriptors. recv(Message*) takes both records with one
// recvmmsg(2) while the payload wait is bounded: the payload record goes into
// room the size of the socket's last payload (at least a new message's 232
// bytes) and, past it, into a buffer of the receiving thread, the two making
// up exactly kMaxInlineData bytes. What spilled is copied into the message
// and room left unused is given back. Each thread that receives keeps that
// buffer, 64 KiB of address space and commit charge, resident only as far as
// records spilled into it; it is mapped on the thread's first receive and
// unmapped when the thread ends, after its thread_local destructors. A
// thread that could not have it (no memory or address space left at its first
// receive) and a socket whose payload wait is unbounded read a message a
// record at a time, the second into storage sized from its header.
//
// Ownership: the object owns its socket descriptor (closed on destruction).
// Descriptors sent stay owned by the sender; descriptors received are new
// numbers owned by the caller, or closed here when the record is refused.
// Every descriptor received has close-on-exec set by the receive itself
// (MSG_CMSG_CLOEXEC), so that a fork and exec on another thread never hands
// one to another program; the socket pair itself is made without it, as
// children inherit its ends on purpose.
//
// Thread: no lock. Each direction has one user at a time: a message is two
// records, and two concurrent senders (or receivers) would interleave them.
// Calls block: a receive until a message comes (wait for readiness with
// getPoller()), a send while the send buffer is full, for at most the send
// time-out; the wait for a message's second record is bounded by the payload
// time-out.
//
// Failure: every int result is 0 or a negative errno value, never a byte
// count: -2 when unbound, -11 when the socket would block or a send found no
// room within its time-out, -errno of sendmsg or recvmsg otherwise; the
// send adds the refusals below, the receive those listed at
// receiveDataAndFileDescriptors(). End of stream is not detected: a record
// read from a closed peer is 0 bytes long and, when no descriptor was
// expected, reported as success with the buffers unchanged.
//
// A message is all or nothing on the wire. send(Message) refuses, before
// anything goes, what would leave a header without its payload:
//   -22 EINVAL    header counts that do not describe the payload (behind the
//                 header the message must hold exactly dataCount bytes and
//                 fileDescriptorCount descriptors: the peer would wait for
//                 what is missing, or take data bytes for descriptors; the
//                 check sees the total, so counts that trade 4 data bytes
//                 for a descriptor pass it), or more than 253 descriptors
//                 (the kernel's own code for it);
//   -90 EMSGSIZE  more data than kMaxInlineData, or than one record of this
//                 socket carries (SO_SNDBUF less 32 bytes; the buffer is read
//                 only for payloads above 4 KiB, which every send buffer
//                 carries);
//   -9  EBADF     a descriptor that is not an open number: -1 in the slot of
//                 one a received message lost, or one already closed (one
//                 poll() that does not wait, for messages with descriptors;
//                 a closed number that a new file took again passes).
// Both records then leave in one sendmmsg(2) that never blocks in the kernel.
//
// A peer that stops reading (a stopped or hung process) fills the send
// buffer. A send that finds it full waits for room here, for at most the
// send time-out (1 s unless set, setSendTimeout(); 0 waits without limit)
// counted from the first record that found no room; while there is room it
// costs no call beyond the sendmmsg. Past the bound:
//   -11 EAGAIN        nothing went: the connection works again once the peer
//                     reads. This is what the header finding no room gives.
//   -103 ECONNABORTED the header went, and its payload record found no room
//                     (the buffer filled up right between the two) or could
//                     not be allocated (ENOBUFS), and that did not change
//                     within the bound. The connection is out of step (the
//                     peer would take the next header for a payload) and must
//                     be closed. A lone header is never reported as success.
// How often: whether the buffer fills up right between a message's two
// records depends on the sizes of the records already in it; filling 16 KiB
// buffers from empty with messages of one size, it did for 25 of 177 payload
// sizes from 0 to 4 KiB (the other 152 gave -11). A sender whose messages
// are all of such a size meets it far more often: in a 30-minute chaos soak,
// 252 replies to clients that never read ran out of time, every one as -103
// (docs/reliability.md). It ends in -103 only when the peer then
// frees less than three quarters of its buffer within the bound (the kernel
// reports room only then). Avoiding it would cost a system call per message
// (a poll for room before the header) and, for bursts, three quarters of the
// buffer; the library does not pay that. Once a send has waited for room,
// both records go together.
// A peer that closes meanwhile ends the wait at once: -104 ECONNRESET, as it
// left records unread (-103 when the header had gone), and -32 EPIPE for
// every send after. A socket its owner
// made non-blocking returns -11 at once when the header finds no room; a
// lone header's payload record is still waited for within the bound.
//
// Sizes the peer decides are not trusted with memory. A message received
// holds at most its header, kMaxInlineData data bytes and 4 bytes per
// announced descriptor slot, and data bytes only as many as its record held
// (end of stream aside, below). Read in one call, storage is sized once the
// record's length is known; read a record at a time, storage of the
// announced size is taken for the receive. A refused record keeps nothing:
// its storage is given back, and at most the thread's 64 KiB buffer stays
// resident.
//   - A header announcing more than kMaxInlineData data bytes, or a payload
//     record longer than that (the kernel has consumed it whole, so the
//     stream stays in step): -90 EMSGSIZE, its descriptors closed, nothing
//     allocated for it.
//   - A record shorter than announced: -74 EBADMSG, its descriptors closed.
//     Only the empty record of a peer gone between the two records (end of
//     stream) stands: its data reads as zeros and the result is 0 (-61 when
//     descriptors were announced).
//   - A record longer than announced, up to kMaxInlineData, is cut to the
//     announced size; the rest is dropped.
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
// wait goes on. A read of the payload record that fails for any other reason
// once its header was taken (ENOMEM from the kernel, say) is -103 as well:
// whether the record went with it is not known.
//
// Compatibility: kept as existing peers and log readers rely on it. End of
// stream is not detected (a peer gone between the two records leaves a payload
// of zeros with result 0), and a record that brings only some of
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

#include "ipc/Export.h"

namespace Kestrel::ipc {

class OutgoingRecord;
class RecordPair;
class RoomWait;

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
    // the header has arrived (1 s unless set). 0 waits without limit, and
    // recv(Message*) then reads a message a record at a time. Set before the
    // socket is in use, or from the thread that receives on it.
    // Kept in milliseconds as 32 bits, like the send time-out: 0 to
    // 4294967295 ms (about 49.7 days); a longer one is taken as that, a
    // negative one as 0.
    void setPayloadTimeout(std::chrono::milliseconds timeout);

    // How long a send may wait for room in the socket's send buffer (1 s
    // unless set), counted from the first record that could not go at once;
    // see the top of this file for what it returns past the bound. 0 waits
    // without limit, as a blocking socket does. Same range as the payload
    // time-out. Set before the socket is in use, or from the thread that
    // sends on it.
    void setSendTimeout(std::chrono::milliseconds timeout);

    // Sends `message` as its two records, both or neither; `message` keeps
    // its descriptors. A peer that has gone away gives -32 (EPIPE); no
    // SIGPIPE is raised. Refusals, the bounded wait for room and -103
    // ECONNABORTED: see the top of this file.
    // Blocks: while the socket's send buffer is full, at most the send
    // time-out (a socket its owner made non-blocking returns -11 at once).
    [[nodiscard]] int send(const Message& message);
    // Sends one record: the payload's data with its descriptors attached,
    // waiting for room as send(Message) does.
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
    // the new payload's data bytes all zero when none were.
    // Blocks: until the peer sends or closes. The message must not be used
    // meanwhile.
    [[nodiscard]] int recv(Message* message);
    // Receives one record into the payload's existing buffers: the caller
    // sizes `data` and `fds` beforehand. -14 for a null payload.
    [[nodiscard]] int recv(Message::Payload* payload);

    // Sends one record of `dataSize` bytes with an SCM_RIGHTS control message
    // carrying `fdCount` descriptors (none allowed). The kernel's own limit on
    // descriptors per message (253) shows as -22 (EINVAL), a descriptor that
    // is not open as -9 (EBADF). A full send buffer is waited on for at most
    // the send time-out, then -11 (EAGAIN); the record is sent whole or not
    // at all.
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
    // fragmented. recv(Message*) refuses more (-90 EMSGSIZE).
    static constexpr size_t kMaxInlineData = size_t{64} * 1024;

  private:
    static constexpr uint32_t kDefaultTimeoutMs = 1000;
    std::chrono::milliseconds payloadTimeout() const {
        return std::chrono::milliseconds(mPayloadTimeoutMs);
    }
    std::chrono::milliseconds sendTimeout() const {
        return std::chrono::milliseconds(mSendTimeoutMs);
    }
    // `timeout` as kept: negative is 0, beyond 32 bits the largest.
    static uint32_t storedTimeout(std::chrono::milliseconds timeout);

    // recv(Message*) with one recvmmsg for both records (the payload record
    // straight into `storage`, any part beyond its room into the thread's
    // receive buffer; `inPlace` when `storage` is the message's own), or with
    // a recvmsg for each, the second sized from the header.
    [[nodiscard]] int receiveBoth(Message* message, Message::Storage& storage, bool inPlace);
    [[nodiscard]] int receiveOneByOne(Message* message, Message::Storage& storage);
    // The payload record that recvmmsg brought, put in its place in `storage`
    // behind the header, with its descriptors.
    [[nodiscard]] int placePayload(Message::Storage& storage, const RecordPair& records,
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
    // Whether a payload record of `length` bytes (`truncated`: longer than
    // kMaxInlineData) stands for a header announcing `counts`: 0, or the
    // refusal (-90, -74), logged and left in errno.
    [[nodiscard]] int refusePayload(const Message::Counts& counts, size_t length,
                                    bool truncated) const;
    // True once the peer has closed its end (or shut down its sending side).
    bool peerHasClosed() const;
    // Remembers how large the payloads on this socket run: the room for the
    // next one in a single call is the last one's size.
    void noteReceivedPayload(const Message::Counts& counts);
    // The message's checks before its first record goes: 0, or the refusal.
    [[nodiscard]] int refusalOf(const Message::Wire& wire, OutgoingRecord& payload) const;
    // The payload record of a send whose header alone went out, within what
    // is left of the send's `wait`.
    [[nodiscard]] int sendPayloadAfterHeader(::msghdr& payload, RoomWait& wait);
    // send(message) and recv(message) as the wire sees them; the public ones
    // add the counting and tracing of the library's observation.
    [[nodiscard]] int sendRecords(const Message& message);
    [[nodiscard]] int receiveRecords(Message* message);
    // Makes the payload time-out the socket's receive time-out (SO_RCVTIMEO).
    void applyPayloadTimeout();

    Kestrel::utils::sys::FileDescriptor mSocketFd;  // -1 until bound
    // Sits where the alignment of the next member left room: the last
    // payload's bytes (data and descriptors), at most 65535.
    uint16_t mLastPayloadBytes = 0;
    // Both time-outs in milliseconds, 0 for no limit: 32 bits each, so that
    // the two take the 8 bytes (and alignment) one std::chrono::milliseconds
    // took before, and the object keeps its size on 32- and 64-bit.
    alignas(8) uint32_t mPayloadTimeoutMs = kDefaultTimeoutMs;
    uint32_t mSendTimeoutMs = kDefaultTimeoutMs;
};

}  // namespace Kestrel::ipc
