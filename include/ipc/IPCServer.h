// IPCServer: the algorithm side of the buffer-sharing endpoints.
//
// A server takes buffers registered by the camera process and the requests
// made on them. This base gives every operation a default that reports "not
// supported" (-1); a platform implementation overrides what it supports.
// getCameraAlgorithmOps() packages the three buffer and request operations as
// a call table for a transport; the table reaches a subclass's overrides.
//
// Ownership: servers come from IPCServerFactory, which owns them for the life
// of the process; a call table refers to its server and must not outlive it.
// Thread: no lock is taken; a subclass decides what may run concurrently.
// Failure: -1 from every operation that is not supported or failed; nothing
// here logs.
//
// Compatibility: the base is a complete server that supports nothing rather
// than an abstract class, since the factory hands it out for unknown platform
// types.
#pragma once

#include <cstdint>
#include <vector>

#include "ipc/Export.h"
#include "ipc/IPCTypes.h"

namespace Kestrel::ipc {

class IPC_EXPORT IPCServer {
  public:
    IPCServer() = default;
    IPCServer(const IPCServer&) = delete;
    IPCServer& operator=(const IPCServer&) = delete;
    virtual ~IPCServer();

    // Each returns -1 here.
    virtual int init();
    virtual int registerBuffer(const std::vector<ca::CameraAlgorithmBuffer>& buffers);
    virtual int deregisterBuffer(const std::vector<uint32_t>& bufferIds);
    virtual int handleRequest(const ca::CameraAlgorithmRequest& request);

    // A table whose callables call registerBuffer, deregisterBuffer and
    // handleRequest on this object (virtually) and return their results.
    virtual ca::CameraAlgorithmOps getCameraAlgorithmOps();
};

}  // namespace Kestrel::ipc
