// Types shared by the buffer-sharing endpoints (IPCServer, IPCClient).
//
// The camera process (client) registers shared-memory buffers and sends
// requests; the algorithm process (server) maps the buffers and serves the
// requests. The layouts of ShmMemInfo and CameraAlgorithmRequest and the
// values of IPC_CMD and IPC_GROUP belong to the platform server; this library
// passes them through without reading them, so the host layouts below only
// need to carry what a caller would hand over.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "ipc/Export.h"

namespace Kestrel::ipc {

// Which server IPCServerFactory hands out. Every value other than these two
// selects the base IPCServer, whose operations all return -1.
enum IPC_PLATFORM_TYPE : int32_t {
    IPC_PLATFORM_TYPE_VELA = 1,   // the platform server, VelaIPCServer
    IPC_PLATFORM_TYPE_DUMMY = 2,  // IPCDummyServer, for bring-up
};

// A client request command. Its values are defined by the platform server;
// any 32-bit value passes through this library unread.
enum IPC_CMD : uint32_t {};

// A group of client requests. Its values are defined by the platform server;
// any 32-bit value passes through this library unread.
enum IPC_GROUP : uint32_t {};

// One shared-memory buffer a client registers (host layout).
struct ShmMemInfo {
    uint32_t bufferId = 0;
    int32_t fd = -1;
    uint64_t size = 0;
};

}  // namespace Kestrel::ipc

namespace Kestrel::ca {

// A buffer handed to an algorithm: its id and its planes, each a descriptor
// of shared memory and a length.
struct CameraAlgorithmBuffer {
    struct Plane {
        int32_t fd = -1;
        uint64_t size = 0;
    };

    uint32_t bufferId = 0;
    std::vector<Plane> planes;
};

// One processing request (host layout): which request, on which buffers.
struct CameraAlgorithmRequest {
    uint32_t requestId = 0;
    std::vector<uint32_t> bufferIds;
};

// The call table a server hands to its transport. Each callable forwards its
// argument to the server it was taken from and returns the server's result.
struct CameraAlgorithmOps {
    std::function<int(const std::vector<CameraAlgorithmBuffer>&)> registerBuffer;
    std::function<int(const std::vector<uint32_t>&)> deregisterBuffer;  // buffer ids
    std::function<int(const CameraAlgorithmRequest&)> handleRequest;
};

}  // namespace Kestrel::ca
