// The version of libvelacam_ipc_core: the macros say which headers a program
// was compiled against, libraryVersion() which library it runs with.
//
// Versions follow semantic versioning: a new minor version adds API, a new
// major version (and shared-object version) breaks it. The numbers here are
// kept equal to the project's version in CMakeLists.txt; the build refuses to
// configure when they differ.
#pragma once

#include "ipc/Export.h"

#define VELACAM_IPC_CORE_VERSION_MAJOR 1
#define VELACAM_IPC_CORE_VERSION_MINOR 4
#define VELACAM_IPC_CORE_VERSION_PATCH 0
#define VELACAM_IPC_CORE_VERSION_STRING "1.4.0"

namespace Kestrel::ipc {

// The version of the loaded library as "major.minor.patch"; a static string,
// callable from any thread.
IPC_EXPORT const char* libraryVersion();

}  // namespace Kestrel::ipc
