// IPCServerFactory: hands out the one process-wide server of each platform
// type.
//
// The first call makes the three servers (the base IPCServer, the
// IPCDummyServer and the platform's VelaIPCServer); they live until process
// exit. Every caller asking for the same type gets the same object.
//
// Thread: any; concurrent first calls are safe (the servers are built under
// the language's once-only guard for function-local statics). Failure: none;
// the result is never null.
//
// Compatibility: the first call builds all three servers whatever type it
// asks for, and an unknown type gets the base server rather than null.
#pragma once

#include "ipc/Export.h"
#include "ipc/IPCServer.h"
#include "ipc/IPCTypes.h"

namespace Kestrel::ipc {

class IPC_EXPORT IPCServerFactory {
  public:
    // The VelaIPCServer for IPC_PLATFORM_TYPE_VELA, the IPCDummyServer for
    // IPC_PLATFORM_TYPE_DUMMY, the base IPCServer (every operation -1) for any
    // other value.
    static IPCServer* getInstance(IPC_PLATFORM_TYPE type);
};

}  // namespace Kestrel::ipc
