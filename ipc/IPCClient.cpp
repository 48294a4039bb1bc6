#include <ipc/IPCClient.h>

namespace Kestrel::ipc {

IPCClient::~IPCClient() = default;

int IPCClient::init(uint32_t /*id*/) { return -1; }

int IPCClient::registerBuffer(uint32_t /*bufferId*/, const uint32_t& /*fd*/, uint32_t /*size*/) {
    return -1;
}

int IPCClient::registerBuffer(const ShmMemInfo& /*buffer*/) { return -1; }

int IPCClient::registerBuffer(const std::vector<ShmMemInfo>& /*buffers*/) { return -1; }

int IPCClient::deregisterBuffers(const std::vector<ShmMemInfo>& /*buffers*/) { return -1; }

int IPCClient::requestSync(uint32_t /*requestId*/, IPC_CMD /*cmd*/) { return -1; }

int IPCClient::requestSync(uint32_t /*requestId*/, IPC_CMD /*cmd*/, int /*value*/) { return -1; }

int IPCClient::requestSync(uint32_t /*requestId*/, IPC_CMD /*cmd*/, int /*value*/,
                           IPC_GROUP /*group*/) {
    return -1;
}

}  // namespace Kestrel::ipc
