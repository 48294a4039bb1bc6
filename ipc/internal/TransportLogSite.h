// The transport's log site, shared by every source the transport is made of
// (UnixDomainSocket and its helpers), so that all its lines carry one tag and
// one source name. Library-internal.
#pragma once

#include <ipc/utils/Log.h>

namespace Kestrel::ipc {

inline constexpr utils::LogSite kTransportLogSite{"UnixDomainSocket", "ipc/UnixDomainSocket",
                                                  utils::kLogModuleCore};

}  // namespace Kestrel::ipc
