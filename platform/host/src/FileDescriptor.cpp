#include <sysutils/FileDescriptor.h>
#include <unistd.h>

namespace Kestrel::utils::sys {

FileDescriptor::FileDescriptor(int fd, int /*flags*/) : mFd(fd) {}

FileDescriptor::FileDescriptor(FileDescriptor&& other) noexcept : mFd(other.mFd) { other.mFd = -1; }

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept {
    if (this != &other) {
        reset();
        mFd = other.mFd;
        other.mFd = -1;
    }
    return *this;
}

FileDescriptor::~FileDescriptor() { reset(); }

int FileDescriptor::dup() const { return mFd >= 0 ? ::dup(mFd) : -1; }

int FileDescriptor::release() {
    const int fd = mFd;
    mFd = -1;
    return fd;
}

void FileDescriptor::reset() {
    if (mFd >= 0) {
        ::close(mFd);
    }
    mFd = -1;
}

}  // namespace Kestrel::utils::sys
