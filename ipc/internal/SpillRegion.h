// SpillRegion: address space, reserved once per thread, for the part of a
// received record that does not fit the room its receiver prepared for it.
//
// A record on a local socket is never longer than one read or write of the
// kernel carries (MAX_RW_COUNT, INT_MAX rounded down to a page), whatever the
// sender's buffer sizes. A receive that offers this region behind its own
// buffer therefore cannot have a record cut short, and can take both records
// of a message with one call before it knows how long the second one is. The
// region is address space only (MAP_NORESERVE): a page takes memory only once
// a record has been written into it, and release() gives back all but the
// first pages after use.
//
// Library-internal (UnixDomainSocket). Thread: each thread has its own region,
// mapped on its first use and unmapped when the thread ends. Failure:
// forThisThread() gives null where the address space cannot be reserved (a
// 32-bit process, an address-space limit, strict overcommit); the caller
// then reads the record with a buffer sized from what the header announced.
#pragma once

#include <cstddef>

namespace Kestrel::ipc {

class SpillRegion {
  public:
    // Longer than any record the kernel moves in one call.
    static constexpr size_t kSize = size_t{1} << 31;

    // This thread's region, or null when it could not be reserved.
    static SpillRegion* forThisThread();

    unsigned char* data() const { return mBase; }

    // Gives back the memory of the pages the first `bytes` filled, but for
    // the first few, which stay for the next small spill.
    void release(size_t bytes);

    SpillRegion(const SpillRegion&) = delete;
    SpillRegion& operator=(const SpillRegion&) = delete;

  private:
    SpillRegion();
    ~SpillRegion();

    unsigned char* mBase;  // null when the reservation failed
};

}  // namespace Kestrel::ipc
