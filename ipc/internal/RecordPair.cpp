#include "RecordPair.h"

#include <errno.h>
#include <ipc/UnixDomainSocket.h>

#include <algorithm>
#include <cstring>

namespace Kestrel::ipc {

namespace {
constexpr size_t kMost = UnixDomainSocket::kMaxInlineData;
}  // namespace

RecordPair::RecordPair(uint8_t* header, uint8_t* room, size_t roomSize, unsigned char* buffer)
    : mHeaderVector{header, Message::kHeaderSize},
      mPayloadVectors{{room, std::min(roomSize, kMost)},
                      {buffer, kMost - std::min(roomSize, kMost)}},
      mHeaderControl{},
      mPayloadControl(kMaxRecordDescriptors, ControlBuffer::Fill::kLeftToTheKernel),
      mRecords{} {
    msghdr& headerRecord = mRecords[0].msg_hdr;
    headerRecord.msg_iov = &mHeaderVector;
    headerRecord.msg_iovlen = 1;
    headerRecord.msg_control = mHeaderControl;
    headerRecord.msg_controllen = sizeof(mHeaderControl);
    msghdr& payloadRecord = mRecords[1].msg_hdr;
    payloadRecord.msg_iov = mPayloadVectors;
    payloadRecord.msg_iovlen = mPayloadVectors[1].iov_len != 0 ? 2 : 1;
    payloadRecord.msg_control = mPayloadControl.data();
    payloadRecord.msg_controllen = mPayloadControl.size();
}

int RecordPair::receive(int socketFd) {
    int received;
    do {
        // Interrupted before the header came: nothing was taken yet.
        received = ::recvmmsg(socketFd, mRecords, 2, MSG_CMSG_CLOEXEC, nullptr);
    } while (received < 0 && errno == EINTR);
    return received;
}

void RecordPair::gatherInto(uint8_t* data, size_t kept) const {
    const size_t room = roomBytes();
    if (kept > room) {
        std::memcpy(data + room, mPayloadVectors[1].iov_base, kept - room);
    }
}

}  // namespace Kestrel::ipc
