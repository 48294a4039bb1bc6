// OutgoingRecord: one record ready for sendmsg or sendmmsg: `dataSize` bytes
// read in place from `data`, and an SCM_RIGHTS message carrying `fdCount` (at
// most kMaxRecordDescriptors) 4-byte descriptors copied from `fds`, which may
// be unaligned. The data and the descriptors stay the caller's; the record
// must not outlive the data. Not movable: its header points into it.
// A descriptor that is not open would make the kernel refuse the record
// (EBADF); checkDescriptors() finds it before anything is sent.
//
// Library-internal (the transport). Thread: one thread at a time.
#pragma once

#include <sys/socket.h>
#include <sys/uio.h>

#include <cstddef>

#include "ControlBuffer.h"

namespace Kestrel::ipc {

class OutgoingRecord {
  public:
    OutgoingRecord(const void* data, size_t dataSize, const void* fds, size_t fdCount);
    OutgoingRecord(const OutgoingRecord&) = delete;
    OutgoingRecord& operator=(const OutgoingRecord&) = delete;

    msghdr& header() { return mHeader; }
    // 0 when every descriptor the record carries is an open number of this
    // process, else -EBADF (a negative number, or one not open). One poll()
    // that does not wait, and only for a record that carries descriptors.
    [[nodiscard]] int checkDescriptors();
    // The debug lines before and after a send, naming `caller`.
    void logBefore(const char* caller, int socketFd);
    void logSent(const char* caller, size_t sent);

  private:
    ControlBuffer mControl;
    iovec mVector;
    msghdr mHeader;
};

}  // namespace Kestrel::ipc
