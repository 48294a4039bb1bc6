// ControlBuffer: room on the stack for the control data of one record, an
// SCM_RIGHTS message of up to kMaxRecordDescriptors descriptors, zero-filled
// unless it is only for the kernel to fill (a receive reads no control byte
// past the length the kernel returns).
// The kernel passes no more in one record, so no record needs more room and
// no peer's count can make it larger.
//
// Library-internal (the transport). Thread: one thread at a time.
#pragma once

#include <sys/socket.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace Kestrel::ipc {

// The kernel passes at most this many descriptors in one record (SCM_MAX_FD).
constexpr size_t kMaxRecordDescriptors = 253;

class ControlBuffer {
  public:
    enum class Fill { kZeroed, kLeftToTheKernel };

    // The bytes of control data for `fdCount` descriptors, or for
    // kMaxRecordDescriptors when more.
    static size_t spaceFor(size_t fdCount) {
        return CMSG_SPACE(sizeof(int) * std::min(fdCount, kMaxRecordDescriptors));
    }

    // Room for spaceFor(fdCount) bytes.
    explicit ControlBuffer(size_t fdCount, Fill fill = Fill::kZeroed) : mSize(spaceFor(fdCount)) {
        if (fill == Fill::kZeroed) {
            std::memset(mData, 0, mSize);
        }
    }
    ControlBuffer(const ControlBuffer&) = delete;
    ControlBuffer& operator=(const ControlBuffer&) = delete;

    unsigned char* data() { return mData; }
    size_t size() const { return mSize; }

    // A header for one record: the single I/O vector `vector` and this buffer.
    msghdr recordHeader(iovec* vector) {
        msghdr header{};
        header.msg_iov = vector;
        header.msg_iovlen = 1;
        header.msg_control = mData;
        header.msg_controllen = mSize;
        return header;
    }

  private:
    alignas(cmsghdr) unsigned char mData[CMSG_SPACE(sizeof(int) * kMaxRecordDescriptors)];
    size_t mSize;
};

}  // namespace Kestrel::ipc
