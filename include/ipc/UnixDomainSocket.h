// UnixDomainSocket: moves Messages between processes over one end of a
// connected pair of local sequenced-packet sockets, passing descriptors with
// SCM_RIGHTS.
//
// Wire format: every message is exactly two records, each one sendmsg(2):
//   1. the 24 header bytes as the message stores them (host byte order), with
//      an SCM_RIGHTS control message carrying no descriptor;
//   2. dataCount payload bytes (possibly none) with an SCM_RIGHTS control
//      message carrying the fileDescriptorCount descriptors in payload order.
// The receiver reads record 1 straight into the message's header and record 2
// with buffers of exactly the sizes that header announces.
//
// Ownership: the object owns its socket descriptor (closed on destruction).
// Descriptors sent stay owned by the sender; descriptors received are new
// numbers owned by the caller, or closed here when the record is refused.
//
// Thread: no lock. Each direction has one user at a time: a message is two
// records, and two concurrent senders (or receivers) would interleave them.
// Calls block (no time-out); wait for readiness with getPoller().
//
// Failure: every int result is 0 or a negative errno value, never a byte
// count: -2 when unbound, -11 when the socket would block, -errno of sendmsg
// or recvmsg otherwise; the receive adds the refusals listed at
// receiveDataAndFileDescriptors(). End of stream is not detected: a record
// read from a closed peer is 0 bytes long and, when no descriptor was
// expected, reported as success with the buffers unchanged.
//
// Sizes the peer decides: recv(Message*) sizes the payload from the header it
// has just read, before the payload record is read, whatever then arrives. A
// header may announce up to 4 GiB - 1 data bytes, which the receive allocates
// and fills twice while moving them into the message (8 GiB at the peak, 4 GiB
// kept by the message), and up to 65535 descriptors, 4 bytes each for the
// slots and again for the control buffer (256 KiB each at most). The kernel
// passes at most 253 descriptors in one record, so a header announcing more
// is served in part at best: 253 arrive, the other slots hold -1. When the
// memory cannot be had, std::bad_alloc leaves
// recv() with the header consumed and the payload record still queued, which
// the next receive would take for a header: treat the connection as broken.
// A receiver that cannot afford what a peer may announce reads the header
// record with receiveDataAndFileDescriptors() and checks the counts first.
#pragma once

#include <ipc/Message.h>
#include <ipc/Poller.h>
#include <ipc/SocketPair.h>
#include <sysutils/FileDescriptor.h>

#include <cstddef>

#include "ipc/Export.h"

namespace Kestrel::ipc {

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

    // Sends `message` as its two records; `message` keeps its descriptors.
    // A peer that has gone away gives -32 (EPIPE); no SIGPIPE is raised.
    // Blocks: while the peer's receive buffer is full.
    [[nodiscard]] int send(const Message& message);
    // Sends one record: the payload's data with its descriptors attached.
    [[nodiscard]] int send(const Message::Payload& payload);

    // Receives two records into `*message`: the header in place, then a
    // payload of the sizes it announces, which replaces the old one. When the
    // payload record is refused the message keeps the new header and its old
    // payload. -14 for a null message.
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
    // descriptors per message shows as -22 (EINVAL).
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

  private:
    Kestrel::utils::sys::FileDescriptor mSocketFd;  // -1 until bound
};

}  // namespace Kestrel::ipc
