// StateDump: a human-readable report of a reactor, loop, reply registry or
// connection, written to a descriptor, the way a service answers a dump
// request.
//
// A reactor's report lists its counters and every registered descriptor with
// the kind of its handler (the readiness it waits for, or gone) and that
// connection's counters; a loop's its counters, queue depth, delay
// percentiles and slow-dispatch setting; a registry's its counters and the
// ids whose callbacks are pending. Counters read zero while counting is off
// (Statistics::enable()).
//
// Thread: any, at any time, also while the object works: the reactor's and
// the registry's lock are held only while the registered descriptors or ids
// are copied, the loop's not at all; formatting and writing happen after.
// Failure: returns 0, or the negative errno of a failed write.
// Cost: nothing until called.
#pragma once

#include "ipc/Export.h"

namespace Kestrel::ipc {

class CBRegistry;
class DefaultReactor;
class MessageLoop;

class IPC_EXPORT StateDump {
  public:
    [[nodiscard]] static int write(int fd, const DefaultReactor& reactor);
    [[nodiscard]] static int write(int fd, MessageLoop& loop);
    [[nodiscard]] static int write(int fd, const CBRegistry& registry);
    // The counters of the connection on descriptor `socketFd`.
    [[nodiscard]] static int writeConnection(int fd, int socketFd);
};

}  // namespace Kestrel::ipc
