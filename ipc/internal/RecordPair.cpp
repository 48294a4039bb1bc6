#include "RecordPair.h"

#include <errno.h>

#include <cstring>

namespace Kestrel::ipc {

RecordPair::RecordPair(uint8_t* header, uint8_t* room, size_t roomSize, SpillRegion& spill)
    : mSpill(spill),
      mHeaderVector{header, Message::kHeaderSize},
      mPayloadVectors{{room, roomSize}, {spill.data(), SpillRegion::kSize}},
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
    payloadRecord.msg_iovlen = 2;
    payloadRecord.msg_control = mPayloadControl.data();
    payloadRecord.msg_controllen = mPayloadControl.size();
}

int RecordPair::receive(int socketFd) {
    int received;
    do {
        // Interrupted before the header came: nothing was taken yet.
        received = ::recvmmsg(socketFd, mRecords, 2, 0, nullptr);
    } while (received < 0 && errno == EINTR);
    return received;
}

void RecordPair::gatherInto(uint8_t* data, size_t kept) {
    const size_t room = roomBytes();
    const size_t length = payloadLength();
    if (length <= room) {
        return;
    }
    if (kept > room) {
        std::memcpy(data + room, mSpill.data(), kept - room);
    }
    mSpill.release(length - room);
}

}  // namespace Kestrel::ipc
