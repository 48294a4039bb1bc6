// Host stand-in for the platform's buffer-sharing server.
//
// On the camera platform VelaIPCServer comes from the platform's own server
// library; IPCServerFactory only constructs and destroys it. Off the platform
// this class adds nothing to IPCServer, so every operation returns -1.
//
// This is the one stand-in that includes a header of the library itself: the
// platform class derives from the library's public IPCServer. It is header
// only, so that the stand-ins library does not link against the library it
// serves.
#pragma once

#include <ipc/IPCServer.h>

namespace Kestrel::ipc::wrapper {

class __attribute__((visibility("default"))) VelaIPCServer : public Kestrel::ipc::IPCServer {
  public:
    VelaIPCServer() = default;
    ~VelaIPCServer() override = default;
};

}  // namespace Kestrel::ipc::wrapper
