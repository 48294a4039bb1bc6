// Test helper: sees every recvmsg and recvmmsg the test executable makes, the
// library's included, before the kernel does.
//
// Linked into a suite's executable (not into the shared support library), its
// definitions of recvmsg and recvmmsg come before the C library's, so the
// library's calls reach them; each shows the records it offers the kernel to
// the observer installed, then makes the real call (through the sanitizer's
// interceptor where there is one). Without an observer a call just goes on.
//
// Thread: the observer is called on the receiving thread; install and remove
// it while no receive runs.
#pragma once

#include <sys/socket.h>

#include <functional>

namespace velacam::test {

enum class ReceiveCall { kRecvmsg, kRecvmmsg };

// `records` are the record headers one call offers the kernel, `flags` its flags.
using ReceiveObserver = std::function<void(ReceiveCall call, const msghdr* const* records,
                                           size_t count, int flags)>;

// Installs `observer` for its lifetime.
class ScopedReceiveObserver {
  public:
    explicit ScopedReceiveObserver(ReceiveObserver observer);
    ~ScopedReceiveObserver();
    ScopedReceiveObserver(const ScopedReceiveObserver&) = delete;
    ScopedReceiveObserver& operator=(const ScopedReceiveObserver&) = delete;

  private:
    ReceiveObserver mObserver;
};

// The bytes a record header offers for data: the sum of its vectors.
size_t offeredBytes(const msghdr& record);

}  // namespace velacam::test
