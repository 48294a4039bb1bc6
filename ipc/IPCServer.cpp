#include <ipc/IPCServer.h>

namespace Kestrel::ipc {

IPCServer::~IPCServer() = default;

int IPCServer::init() { return -1; }

int IPCServer::registerBuffer(const std::vector<ca::CameraAlgorithmBuffer>& /*buffers*/) {
    return -1;
}

int IPCServer::deregisterBuffer(const std::vector<uint32_t>& /*bufferIds*/) { return -1; }

int IPCServer::handleRequest(const ca::CameraAlgorithmRequest& /*request*/) { return -1; }

ca::CameraAlgorithmOps IPCServer::getCameraAlgorithmOps() {
    ca::CameraAlgorithmOps ops;
    ops.registerBuffer = [this](const std::vector<ca::CameraAlgorithmBuffer>& buffers) {
        return registerBuffer(buffers);
    };
    ops.deregisterBuffer = [this](const std::vector<uint32_t>& bufferIds) {
        return deregisterBuffer(bufferIds);
    };
    ops.handleRequest = [this](const ca::CameraAlgorithmRequest& request) {
        return handleRequest(request);
    };
    return ops;
}

}  // namespace Kestrel::ipc
