// Test helper: sees every recvmsg and recvmmsg of the suite's executable (the
// library's included) before the kernel does: linked into that executable, its
// definitions come before the C library's. Each call shows the records it offers
// to the installed observer, then makes the real call (through the sanitizer's
// interceptor where there is one). The observer runs on the receiving thread:
// install and remove it while no receive runs.
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

}  // namespace velacam::test
