#include "ReceivedDescriptors.h"

#include <unistd.h>

#include <cstring>

#include "Observation.h"

namespace Kestrel::ipc {

ReceivedDescriptors::ReceivedDescriptors(const cmsghdr* rights, size_t count)
    : mRights(rights), mCount(rights != nullptr ? count : 0) {}

ReceivedDescriptors::~ReceivedDescriptors() {
    observe::dropped(mCount);
    for (size_t i = 0; i < mCount; ++i) {
        int fd;
        std::memcpy(&fd, CMSG_DATA(mRights) + i * sizeof(int), sizeof(fd));
        ::close(fd);
    }
}

void ReceivedDescriptors::handOver(void* destination) {
    if (mCount != 0) {
        std::memcpy(destination, CMSG_DATA(mRights), sizeof(int) * mCount);
    }
    mCount = 0;
}

}  // namespace Kestrel::ipc
