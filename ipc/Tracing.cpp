#include <ipc/Tracing.h>

#include <cstdlib>

#include "internal/ObserveSwitches.h"
#include "internal/TraceFile.h"

namespace Kestrel::ipc {

namespace {
// Runs while the library is loaded: a process started with VELACAM_TRACE
// traces from its first message on.
bool startFromEnvironment() noexcept {
    const char* path = std::getenv("VELACAM_TRACE");
    return path != nullptr && *path != '\0' && Tracing::start(path);
}
[[maybe_unused]] const bool sStartedFromEnvironment = startFromEnvironment();
}  // namespace

bool Tracing::start(const char* path) { return observe::TraceFile::instance().start(path); }

void Tracing::finish() { observe::TraceFile::instance().finish(); }

void Tracing::nameProcess(const char* name) { observe::TraceFile::instance().nameProcess(name); }

bool Tracing::toFile() { return observe::isOn(observe::kTraceFile); }

}  // namespace Kestrel::ipc
