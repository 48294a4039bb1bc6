// A shared-memory buffer of the demo: a memfd filled with a known pattern of
// 32-bit words, shared with the algorithm process as a descriptor.
#pragma once

#include <sysutils/FileDescriptor.h>

#include <cstddef>
#include <cstdint>
#include <optional>

namespace demo {

class SharedBuffer {
  public:
    // Makes a buffer of `bytes` (a multiple of 4) holding the pattern of
    // `seed`; nullopt when the memory cannot be made.
    static std::optional<SharedBuffer> create(size_t bytes, uint32_t seed);

    int fd() const { return mFd.get(); }

    // True when the words now read in reverse order of the pattern, as the
    // algorithm's transformation leaves them.
    bool holdsReversedPattern() const;

    // Reverses the 32-bit words of the memory behind `fd` in place; false when
    // it cannot be mapped. This is the algorithm side's work.
    static bool reverseWords(int fd, size_t bytes);

  private:
    SharedBuffer(Kestrel::utils::sys::FileDescriptor fd, size_t bytes, uint32_t seed);

    Kestrel::utils::sys::FileDescriptor mFd;
    size_t mBytes;
    uint32_t mSeed;
};

}  // namespace demo
