#include <ipc/Version.h>

namespace Kestrel::ipc {

const char* libraryVersion() { return VELACAM_IPC_CORE_VERSION_STRING; }

}  // namespace Kestrel::ipc
