#include "SpillRegion.h"

#include <sys/mman.h>
#include <unistd.h>

namespace Kestrel::ipc {

namespace {
// What stays in memory after a spill: enough for the occasional record a
// little over its room, without taking memory for a large one for good.
constexpr size_t kKeptResident = size_t{64} * 1024;
}  // namespace

SpillRegion* SpillRegion::forThisThread() {
    thread_local SpillRegion region;
    return region.mBase != nullptr ? &region : nullptr;
}

SpillRegion::SpillRegion() : mBase(nullptr) {
    void* const base = ::mmap(nullptr, kSize, PROT_READ | PROT_WRITE,
                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (base != MAP_FAILED) {
        mBase = static_cast<unsigned char*>(base);
    }
}

SpillRegion::~SpillRegion() {
    if (mBase != nullptr) {
        ::munmap(mBase, kSize);
    }
}

void SpillRegion::release(size_t bytes) {
    if (bytes <= kKeptResident) {
        return;
    }
    const auto page = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
    const size_t end = (bytes + page - 1) / page * page;
    // kKeptResident is a multiple of every page size in use up to 64 KiB.
    (void)::madvise(mBase + kKeptResident, end - kKeptResident, MADV_DONTNEED);
}

}  // namespace Kestrel::ipc
