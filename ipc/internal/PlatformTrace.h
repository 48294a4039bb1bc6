// Trace markers in the platform's own trace: on Android, atrace slices under
// the camera tag, so that they show in a system trace beside the rest of the
// camera stack; nothing on a host. Library-internal.
#pragma once

#include "TraceEvent.h"

namespace Kestrel::ipc::observe {

#if defined(__ANDROID__)
// Opens a slice named after `kind` (and the message, when known).
void platformBegin(TraceKind kind, const TracedMessage* message);
// Closes it; a receive first names the message it took.
void platformEnd(TraceKind kind, const TracedMessage* message);
#else
inline void platformBegin(TraceKind, const TracedMessage*) {}
inline void platformEnd(TraceKind, const TracedMessage*) {}
#endif

}  // namespace Kestrel::ipc::observe
