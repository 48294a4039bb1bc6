// The Android half of the trace markers; a host build has none (see
// PlatformTrace.h).
#include "PlatformTrace.h"

#if defined(__ANDROID__)

#define ATRACE_TAG ATRACE_TAG_CAMERA
#include <cutils/trace.h>

#include <cstdio>

#include "ObserveSwitches.h"

namespace Kestrel::ipc::observe {

bool platformTraceEnabled() { return ATRACE_ENABLED(); }

namespace {
void beginNamed(TraceKind kind, const TracedMessage& message) {
    char name[96];
    std::snprintf(name, sizeof(name), "%s id=%u type=%u", nameOf(kind), message.id, message.type);
    ATRACE_BEGIN(name);
}
}  // namespace

void platformBegin(TraceKind kind, const TracedMessage* message) {
    if (!ATRACE_ENABLED()) {
        return;
    }
    if (message != nullptr) {
        beginNamed(kind, *message);
    } else {
        ATRACE_BEGIN(nameOf(kind));
    }
}

void platformEnd(TraceKind kind, const TracedMessage* message) {
    if (!ATRACE_ENABLED()) {
        return;
    }
    if (kind == TraceKind::kReceive && message != nullptr) {
        beginNamed(kind, *message);  // a mark inside the receive, naming what it took
        ATRACE_END();
    }
    ATRACE_END();
}

}  // namespace Kestrel::ipc::observe

#endif
