// ReceivedDescriptors: owns the descriptors that one received record brought
// in an SCM_RIGHTS control message, from the moment recvmsg returns until they
// are handed to the caller; whatever is not handed over is closed on
// destruction, so no return path of a receive can forget one.
//
// Library-internal (the transport's receive). Thread: one thread at a time.
#pragma once

#include <sys/socket.h>

#include <cstddef>

namespace Kestrel::ipc {

class ReceivedDescriptors {
  public:
    // Takes the `count` descriptors in `rights`' data (null rights: none).
    ReceivedDescriptors(const cmsghdr* rights, size_t count);
    ~ReceivedDescriptors();
    ReceivedDescriptors(const ReceivedDescriptors&) = delete;
    ReceivedDescriptors& operator=(const ReceivedDescriptors&) = delete;

    size_t count() const { return mCount; }
    // Copies the numbers as 4-byte integers to `destination` (which may be
    // unaligned) and gives up their ownership.
    void handOver(void* destination);

  private:
    const cmsghdr* mRights;
    size_t mCount;
};

}  // namespace Kestrel::ipc
