// Host stand-in for the platform's owning descriptor wrapper.
//
// Owns one descriptor number and closes it on destruction or replacement. A
// negative number (-1, or an error code kept in it) is never closed.
#pragma once

namespace Kestrel::utils::sys {

class FileDescriptor {
  public:
    FileDescriptor() = default;
    // Takes ownership of `fd`; `flags` is kept for the platform's signature.
    FileDescriptor(int fd, int flags);
    FileDescriptor(FileDescriptor&& other) noexcept;
    FileDescriptor& operator=(FileDescriptor&& other) noexcept;
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor();

    int get() const { return mFd; }
    // Returns a new number for the same open file (as dup(2)), or -1.
    int dup() const;
    // Gives the number up without closing it; the wrapper then holds -1.
    int release();

  private:
    void reset();

    int mFd = -1;
};

}  // namespace Kestrel::utils::sys
