#include "SharedBuffer.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>

namespace demo {

namespace {

uint32_t patternWord(uint32_t seed, size_t index) {
    return seed * 2654435761u + static_cast<uint32_t>(index);
}

// Maps `bytes` of `fd` shared and read-write; unmaps when it goes away.
class Mapping {
  public:
    Mapping(int fd, size_t bytes)
        : mBytes(bytes),
          mAddress(mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0)) {}
    ~Mapping() {
        if (valid()) {
            munmap(mAddress, mBytes);
        }
    }
    Mapping(const Mapping&) = delete;
    Mapping& operator=(const Mapping&) = delete;

    bool valid() const { return mAddress != MAP_FAILED; }
    uint32_t* words() const { return static_cast<uint32_t*>(mAddress); }
    size_t wordCount() const { return mBytes / sizeof(uint32_t); }

  private:
    size_t mBytes;
    void* mAddress;
};

}  // namespace

SharedBuffer::SharedBuffer(Kestrel::utils::sys::FileDescriptor fd, size_t bytes, uint32_t seed)
    : mFd(std::move(fd)), mBytes(bytes), mSeed(seed) {}

std::optional<SharedBuffer> SharedBuffer::create(size_t bytes, uint32_t seed) {
    Kestrel::utils::sys::FileDescriptor fd(memfd_create("velacam-demo-buffer", MFD_CLOEXEC), 0);
    if (fd.get() < 0 || ftruncate(fd.get(), static_cast<off_t>(bytes)) != 0) {
        return std::nullopt;
    }
    const Mapping mapping(fd.get(), bytes);
    if (!mapping.valid()) {
        return std::nullopt;
    }
    for (size_t i = 0; i < mapping.wordCount(); ++i) {
        mapping.words()[i] = patternWord(seed, i);
    }
    return SharedBuffer(std::move(fd), bytes, seed);
}

bool SharedBuffer::holdsReversedPattern() const {
    const Mapping mapping(mFd.get(), mBytes);
    if (!mapping.valid()) {
        return false;
    }
    const size_t n = mapping.wordCount();
    for (size_t i = 0; i < n; ++i) {
        if (mapping.words()[i] != patternWord(mSeed, n - 1 - i)) {
            return false;
        }
    }
    return true;
}

bool SharedBuffer::reverseWords(int fd, size_t bytes) {
    const Mapping mapping(fd, bytes);
    if (!mapping.valid()) {
        return false;
    }
    std::reverse(mapping.words(), mapping.words() + mapping.wordCount());
    return true;
}

}  // namespace demo
