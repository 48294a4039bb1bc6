// IPCDummyServer and IPCDummyClient: placeholder endpoints for bringing up the
// buffer path without the platform server.
//
// The dummy server proves that a registered buffer really is shared: it maps
// every plane, logs its contents, reverses them in place (the process that
// shared the buffer sees the change) and unmaps it. Every other operation of
// both classes is the base's and returns -1.
//
// Ownership: the descriptors of the planes stay the caller's: the dummy server
// neither validates nor closes them. The dummy server handed out by
// IPCServerFactory lives until process exit.
// Thread: no lock; concurrent registerBuffer calls on the same buffer race on
// its contents. Failure: a plane that cannot be mapped ends the process (tag
// "IPCDummyServer").
//
// Compatibility: registerBuffer returns -1 also when every plane was handled,
// and a plane's `size` counts 32-bit integers although it maps that many
// bytes.
#pragma once

#include <vector>

#include "ipc/Export.h"
#include "ipc/IPCClient.h"
#include "ipc/IPCServer.h"

namespace Kestrel::ipc {

class IPC_EXPORT IPCDummyServer : public IPCServer {
  public:
    IPCDummyServer() = default;
    ~IPCDummyServer() override;

    // For each plane in order: maps `size` bytes of `fd` shared, logs the first
    // `size` 32-bit integers, reverses those integers in place, logs them again
    // and unmaps. Keep `size` below a quarter of the mapped pages. Returns -1.
    int registerBuffer(const std::vector<ca::CameraAlgorithmBuffer>& buffers) override;
};

class IPC_EXPORT IPCDummyClient : public IPCClient {
  public:
    IPCDummyClient() = default;
    ~IPCDummyClient() override;
};

}  // namespace Kestrel::ipc
