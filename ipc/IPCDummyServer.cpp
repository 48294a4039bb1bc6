#include <ipc/IPCDummyServer.h>
#include <ipc/utils/Log.h>
#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace Kestrel::ipc {

namespace {
constexpr utils::LogSite kLogSite{"IPCDummyServer", "ipc/IPCDummyServer", utils::kLogModuleCore};

// Unmaps one plane's mapping when the plane is done.
class MappingGuard {
  public:
    MappingGuard(void* address, size_t length) : mAddress(address), mLength(length) {}
    MappingGuard(const MappingGuard&) = delete;
    MappingGuard& operator=(const MappingGuard&) = delete;
    ~MappingGuard() { munmap(mAddress, mLength); }

  private:
    void* mAddress;
    size_t mLength;
};
}  // namespace

IPCDummyServer::~IPCDummyServer() = default;

int IPCDummyServer::registerBuffer(const std::vector<ca::CameraAlgorithmBuffer>& buffers) {
    for (const ca::CameraAlgorithmBuffer& buffer : buffers) {
        IPC_LOGD("[%s] buffer id(%u)", __func__, buffer.bufferId);
        for (const ca::CameraAlgorithmBuffer::Plane& plane : buffer.planes) {
            const auto size = static_cast<size_t>(plane.size);
            void* address = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, plane.fd, 0);
            const MappingGuard guard(address, size);
            IPC_LOGD("[%s] plane size(%zu)", __func__, size);
            if (address == MAP_FAILED) {
                IPC_FATAL("mmap failed(%s)", strerror(errno));
            }
            auto* elements = static_cast<int32_t*>(address);
            for (size_t i = 0; i < size; ++i) {
                IPC_LOGD("[%s] plane content[%d]: before(%d)", __func__, static_cast<int>(i),
                         elements[i]);
            }
            std::reverse(elements, elements + size);
            for (size_t i = 0; i < size; ++i) {
                IPC_LOGD("[%s] plane content[%d]: after(%d)", __func__, static_cast<int>(i),
                         elements[i]);
            }
        }
    }
    return -1;
}

IPCDummyClient::~IPCDummyClient() = default;

}  // namespace Kestrel::ipc
