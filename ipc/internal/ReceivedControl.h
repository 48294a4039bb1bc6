// ReceivedControl: what the transport reads from the control data of a
// received record: the descriptors an SCM_RIGHTS message brought, checked
// against what the header announced, handed over or closed.
//
// Only numbers inside an SCM_RIGHTS message, and inside the control bytes the
// kernel filled, are ever taken for descriptors. Library-internal
// (UnixDomainSocket). Thread: any; no state. Failure: negative errno, and
// every descriptor that arrived ends up handed over or closed.
#pragma once

#include <sys/socket.h>

#include <cstddef>

namespace Kestrel::ipc::received_control {

// Sets `count` 4-byte slots at `fds` (possibly unaligned) to -1.
void clearSlots(void* fds, size_t count);

// Closes every descriptor a received record brought.
void closeAllReceived(const msghdr& header);

// Hands the descriptors of a received record to `fds` (fdCount 4-byte slots,
// possibly unaligned), or refuses the record: 0, or -EBADMSG, -EMSGSIZE,
// -ENODATA with the slots cleared. Debug lines name `caller`, the receive
// they belong to.
int takeDescriptors(const char* caller, const msghdr& header, void* fds, size_t fdCount);

}  // namespace Kestrel::ipc::received_control
