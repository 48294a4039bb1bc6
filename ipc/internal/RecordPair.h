// RecordPair: both records of a message taken with one recvmmsg(2): the
// header record into its 24 bytes, the payload record into the room its
// receiver prepared and, past that room, into the thread's receive buffer, up
// to UnixDomainSocket::kMaxInlineData bytes in all. A longer payload record
// is consumed whole by the kernel and comes back cut (truncated()), so the
// stream stays in step. No vector offered reaches past memory allocated for
// it.
//
// The control data of the payload record has room for every descriptor one
// record can bring; the header record's has none (the kernel closes any that
// came with it). Descriptors arrive with close-on-exec set.
//
// Library-internal (UnixDomainSocket). Thread: the receiving thread; the
// object lives on its stack for one receive. Failure: receive() gives -1
// with errno set, as recvmmsg does.
#pragma once

#include <ipc/Message.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>

#include "ControlBuffer.h"

namespace Kestrel::ipc {

class RecordPair {
  public:
    // `room` of `roomSize` bytes, then `buffer` (the thread's receive buffer,
    // which may be null when `roomSize` reaches the inline maximum).
    RecordPair(uint8_t* header, uint8_t* room, size_t roomSize, unsigned char* buffer);
    RecordPair(const RecordPair&) = delete;
    RecordPair& operator=(const RecordPair&) = delete;

    // One recvmmsg for both records, waiting for each as the socket waits
    // (its receive time-out bounds each wait). The records taken, 1 or 2: 1
    // when the wait for the payload record ran out or was cut short.
    int receive(int socketFd);

    const msghdr& payloadRecord() const { return mRecords[1].msg_hdr; }
    // The payload bytes taken, at most the inline maximum.
    size_t payloadLength() const { return mRecords[1].msg_len; }
    // True when the payload record was longer than the inline maximum.
    bool truncated() const { return (mRecords[1].msg_hdr.msg_flags & MSG_TRUNC) != 0; }

    // Completes the first `kept` bytes of the payload record at `data`, where
    // the room now starts (growing the storage may have moved it): the part
    // past the room comes from the receive buffer.
    void gatherInto(uint8_t* data, size_t kept) const;

  private:
    size_t roomBytes() const { return mPayloadVectors[0].iov_len; }

    iovec mHeaderVector;
    iovec mPayloadVectors[2];
    alignas(cmsghdr) unsigned char mHeaderControl[CMSG_SPACE(0)];
    ControlBuffer mPayloadControl;
    mmsghdr mRecords[2];
};

}  // namespace Kestrel::ipc
