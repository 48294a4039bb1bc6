// Test helpers for descriptor bookkeeping over /proc/self/fd.
#pragma once

#include <set>

namespace velacam::test {

// The descriptors open in this process (the listing's own one excluded).
std::set<int> openDescriptors();

bool sameFile(int a, int b);  // the same device and inode
bool isOpen(int fd);

// When destroyed, fails on every descriptor opened or closed since construction.
class ScopedLeakCheck {
  public:
    ScopedLeakCheck();
    ~ScopedLeakCheck();

  private:
    std::set<int> mBefore;
};

}  // namespace velacam::test
