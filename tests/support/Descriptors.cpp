#include "support/Descriptors.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>

namespace velacam::test {

std::set<int> openDescriptors() {
    std::set<int> fds;
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) {
        ADD_FAILURE() << "cannot list /proc/self/fd";
        return fds;
    }
    const int own = dirfd(dir);
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.') {
            continue;
        }
        const int fd = std::atoi(entry->d_name);
        if (fd != own) {
            fds.insert(fd);
        }
    }
    closedir(dir);
    return fds;
}

bool sameFile(int a, int b) {
    struct stat sa {};
    struct stat sb {};
    return fstat(a, &sa) == 0 && fstat(b, &sb) == 0 && sa.st_dev == sb.st_dev &&
           sa.st_ino == sb.st_ino;
}

bool isOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

ScopedLeakCheck::ScopedLeakCheck() : mBefore(openDescriptors()) {}

ScopedLeakCheck::~ScopedLeakCheck() {
    EXPECT_EQ(openDescriptors(), mBefore) << "descriptors leaked or closed behind our back";
}

}  // namespace velacam::test
