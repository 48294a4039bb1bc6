#include <ipc/utils/Log.h>
#include <properties/Properties.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace Kestrel::ipc::utils {

namespace {
// Runs during the library's static initialisation, where nothing could catch
// an exception.
int32_t readLogLevel() noexcept {
    return Kestrel::Utils::Properties::property_get_int32("vendor.debug.ipc.framework.log", 0);
}
}  // namespace

int32_t LogSetting::sLogLevel = readLogLevel();

namespace {
constexpr LogSite kLogSite{"LogSetting", "ipc/utils/Log", kLogModuleCore};

// A verbosity that asks for debug lines gets none while the property is
// unset (VELACAM_LOG_LEVEL=5 alone, on a host): say once, at load, what is
// missing, instead of leaving the reader to wonder. Runs after sLogLevel is
// set, which is defined above in this file.
bool hintAtMissingProperty() noexcept {
    if (LogSetting::sLogLevel < 1 && logging::ULogger::sDetailsLevel >= 5) {
        IPC_LOGW(
                "debug lines are off: they also need the property "
                "vendor.debug.ipc.framework.log >= 1 at start "
                "(on a host: VENDOR_DEBUG_IPC_FRAMEWORK_LOG=1)");
    }
    return true;
}
[[maybe_unused]] const bool sDebugHintGiven = hintAtMissingProperty();
}  // namespace

namespace logging {

namespace {

uint32_t uloggerLevel(Level level) { return level == kDebug ? 5u : static_cast<uint32_t>(level); }

// Formats into `buffer` and hands the line to the unified logger with
// snprintf's result as the length.
void recordFormatted(const LogSite& site, Level level, const char* format, va_list args) {
    ULogger* logger = ULogger::sULogger;
    if (logger == nullptr) {
        return;
    }
    char buffer[kBufferSize] = {};
    const int length = std::vsnprintf(buffer, sizeof(buffer), format, args);
    if (length < 0) {
        return;
    }
    buffer[kBufferSize - 1] = '\0';
    logger->record(site.moduleId, site.tag, uloggerLevel(level), buffer, length);
}

}  // namespace

void writeFrame(char* buffer, Level level, const LogSite& site, int line, const char* function,
                const char* format) {
    std::memset(buffer, 0, kBufferSize);
    const int length =
            std::snprintf(buffer, kBufferSize, "%s[%s] %s:%d %s() %s", g_logInfoLv[level].prefix,
                          site.tag, get_filename_log_control(site.file), line, function, format);
    if (length < 0 || length >= kBufferSize) {
        std::abort();
    }
}

void record(const LogSite& site, Level level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    recordFormatted(site, level, format, args);
    va_end(args);
}

void recordFatal(const LogSite& site, const char* format, ...) {
    if (!uloggerSelected()) {
        return;
    }
    va_list args;
    va_start(args, format);
    recordFormatted(site, kError, format, args);
    va_end(args);
    if (ULogger* logger = ULogger::sULogger) {
        logger->flush(1);
    }
}

}  // namespace logging
}  // namespace Kestrel::ipc::utils
