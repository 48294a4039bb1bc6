// Test helpers for descriptor bookkeeping over /proc/self/fd.
#pragma once

#include <set>

namespace velacam::test {

// The descriptors open in this process (the listing's own one excluded).
std::set<int> openDescriptors();

// True when both descriptors refer to the same open file (device and inode).
bool sameFile(int a, int b);

// True when `fd` is an open descriptor of this process.
bool isOpen(int fd);

// Records the open descriptors at construction; check() reports (as a gtest
// failure) every descriptor opened since and still open, and every one closed
// that was open before.
class DescriptorLeakCheck {
  public:
    DescriptorLeakCheck();
    void check() const;

  private:
    std::set<int> mBefore;
};

// The same check, made when it goes out of scope: declare it before whatever
// must have closed its descriptors by then.
class ScopedLeakCheck : public DescriptorLeakCheck {
  public:
    ~ScopedLeakCheck() { check(); }
};

}  // namespace velacam::test
