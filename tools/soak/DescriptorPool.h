// Memory files a requester attaches to its requests. A window slot's files
// are rewritten for each request sent from it; a slot is reused only once its
// previous request has been answered, so the server never reads a text meant
// for a later request.
#pragma once

#include <sysutils/FileDescriptor.h>

#include <cstdint>
#include <vector>

namespace velacam::soak {

class DescriptorPool {
  public:
    DescriptorPool(uint32_t windowSlots, uint32_t perSlot);
    // The first `count` files of `slot`, each now holding the tag of
    // (client, seq, j); empty when a file could not be written.
    std::vector<int> fill(uint32_t slot, uint32_t count, uint32_t client, uint32_t seq);

  private:
    uint32_t mPerSlot;
    std::vector<Kestrel::utils::sys::FileDescriptor> mFiles;
};

}  // namespace velacam::soak
