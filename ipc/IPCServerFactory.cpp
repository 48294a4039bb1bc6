#include <ipc/IPCDummyServer.h>
#include <ipc/IPCServerFactory.h>
#include <ipc_wrapper/VelaIPCServer.h>

namespace Kestrel::ipc {

IPCServer* IPCServerFactory::getInstance(IPC_PLATFORM_TYPE type) {
    static IPCServer sBaseServer;
    static IPCDummyServer sDummyServer;
    static wrapper::VelaIPCServer sVelaServer;
    switch (type) {
        case IPC_PLATFORM_TYPE_VELA:
            return &sVelaServer;
        case IPC_PLATFORM_TYPE_DUMMY:
            return &sDummyServer;
        default:
            return &sBaseServer;
    }
}

}  // namespace Kestrel::ipc
