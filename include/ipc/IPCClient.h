// IPCClient: the camera side of the buffer-sharing endpoints.
//
// A client registers shared-memory buffers with the algorithm process and
// sends it synchronous requests. This base gives every operation a default
// that reports "not supported" (-1); a platform implementation overrides what
// it supports. The meaning of the numeric arguments belongs to that
// implementation and its server.
//
// Ownership: the caller owns the client; buffers stay owned by the caller.
// Thread: no lock is taken; a subclass decides what may run concurrently.
// Failure: -1 from every operation that is not supported or failed; nothing
// here logs.
//
// Compatibility: the signatures are those platform clients override: the
// first registerBuffer takes the descriptor as `const uint32_t&`, and
// requestSync comes as three overloads rather than default arguments.
#pragma once

#include <cstdint>
#include <vector>

#include "ipc/Export.h"
#include "ipc/IPCTypes.h"

namespace Kestrel::ipc {

class IPC_EXPORT IPCClient {
  public:
    IPCClient() = default;
    IPCClient(const IPCClient&) = delete;
    IPCClient& operator=(const IPCClient&) = delete;
    virtual ~IPCClient();

    // Each returns -1 here.
    virtual int init(uint32_t id);
    virtual int registerBuffer(uint32_t bufferId, const uint32_t& fd, uint32_t size);
    virtual int registerBuffer(const ShmMemInfo& buffer);
    virtual int registerBuffer(const std::vector<ShmMemInfo>& buffers);
    virtual int deregisterBuffers(const std::vector<ShmMemInfo>& buffers);
    virtual int requestSync(uint32_t requestId, IPC_CMD cmd);
    virtual int requestSync(uint32_t requestId, IPC_CMD cmd, int value);
    virtual int requestSync(uint32_t requestId, IPC_CMD cmd, int value, IPC_GROUP group);
};

}  // namespace Kestrel::ipc
