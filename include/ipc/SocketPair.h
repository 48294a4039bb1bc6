// SocketPair: the two connected ends made by
// UnixDomainSocket::createPairedSocket.
//
// Each end is an owning FileDescriptor; its user moves it into a
// UnixDomainSocket (directly or inside a SocketEventHandler).
//
// Thread: a plain value; no lock. Failure: after a failed creation `first`
// holds the negative errno value and `second` -1, so callers test
// `first.get() < 0`; negative numbers are never closed.
//
// Compatibility: the ends are public members, the failure travels inside the
// pair, and a pair can be copied (duplicating both descriptors) but not
// copy-assigned.
#pragma once

#include <sysutils/FileDescriptor.h>

#include "ipc/Export.h"

namespace Kestrel::ipc {

class IPC_EXPORT SocketPair {
  public:
    // Takes ownership of both numbers.
    SocketPair(int a, int b);
    // Each copy owns duplicates (dup(2)) of `other`'s descriptors, so
    // destroying one pair leaves the other's open.
    SocketPair(const SocketPair& other);
    SocketPair(SocketPair&& other) noexcept = default;
    SocketPair& operator=(SocketPair&& other) noexcept = default;
    SocketPair& operator=(const SocketPair&) = delete;
    ~SocketPair() = default;

    Kestrel::utils::sys::FileDescriptor first;
    Kestrel::utils::sys::FileDescriptor second;
};

}  // namespace Kestrel::ipc
