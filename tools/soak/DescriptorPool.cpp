#include "DescriptorPool.h"

#include <sys/mman.h>
#include <unistd.h>

#include "SoakProtocol.h"

namespace velacam::soak {

DescriptorPool::DescriptorPool(uint32_t windowSlots, uint32_t perSlot) : mPerSlot(perSlot) {
    mFiles.reserve(size_t{windowSlots} * perSlot);
    for (size_t i = 0; i < size_t{windowSlots} * perSlot; ++i) {
        mFiles.emplace_back(::memfd_create("soak", MFD_CLOEXEC), 0);
    }
}

std::vector<int> DescriptorPool::fill(uint32_t slot, uint32_t count, uint32_t client,
                                      uint32_t seq) {
    std::vector<int> fds;
    for (uint32_t j = 0; j < count && j < mPerSlot; ++j) {
        const int fd = mFiles[size_t{slot} * mPerSlot + j].get();
        char tag[128];
        const int length = descriptorTag(tag, sizeof(tag), client, seq, j);
        if (fd < 0 || ::ftruncate(fd, 0) != 0 || ::pwrite(fd, tag, length, 0) != length) {
            return {};
        }
        fds.push_back(fd);
    }
    return fds;
}

}  // namespace velacam::soak
