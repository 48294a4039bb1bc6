// Test helpers for descriptor bookkeeping over /proc/self/fd.
#pragma once

#include <set>

namespace velacam::test {

// The descriptors open in this process (the listing's own one excluded).
std::set<int> openDescriptors();

bool sameFile(int a, int b);  // the same device and inode
bool isOpen(int fd);

// check() fails on every descriptor opened since construction and still open,
// and every one closed that was open before.
class DescriptorLeakCheck {
  public:
    DescriptorLeakCheck();
    void check() const;

  private:
    std::set<int> mBefore;
};

// Checks when it goes out of scope.
class ScopedLeakCheck : public DescriptorLeakCheck {
  public:
    ~ScopedLeakCheck() { check(); }
};

}  // namespace velacam::test
