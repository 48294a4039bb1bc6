// The library's one logging convention.
//
// Every log site has a level, the tag of its class, the source file, line and
// function, and a printf-style message. A site feeds two sinks: the debug-print
// sink (`log_dbg_print`, with a frame of prefix, tag, file, line and function)
// and the unified logger (`ULogger::sULogger`, the plain message). Debug lines
// appear only when the system property "vendor.debug.ipc.framework.log" was 1
// or more when the library was loaded; info and warning lines are gated by
// `ULogger::sDetailsLevel`, error lines always pass. The gates run before any
// argument is evaluated, so a suppressed line costs a few comparisons.
//
// A source file declares its site once, after including this header:
//
//   namespace {
//   constexpr Kestrel::ipc::utils::LogSite kLogSite{"Thread", "ipc/utils/Thread",
//                                                  Kestrel::ipc::utils::kLogModuleCore};
//   }
//
// and then logs with IPC_LOGD / IPC_LOGI / IPC_LOGW / IPC_LOGE. IPC_FATAL logs
// the message to the unified logger and ends the process through
// `__android_log_assert`; it never returns.
//
// Thread: any. Each emitted line formats into a 1024-byte buffer on the
// stack; nothing is allocated and no lock is taken.
//
// Compatibility: kept as the platform's log readers rely on it. The
// synchronisation primitives log under a module identity of their own. The
// debug-print sink formats twice: first the frame, with the site's format
// copied in unexpanded, then the arguments into that; a frame too long for
// the buffer aborts. The unified logger is given snprintf's length even when
// the text was truncated. A fatal line goes to the unified logger only. The
// property is read once, when the library is loaded.
#pragma once

#include <android/log.h>
#include <debugwrapper/DebugWrapper.h>
#include <ulog/ULogger.h>

#include <cstdint>

#include "ipc/Export.h"

namespace Kestrel::ipc::utils {

// The library-wide verbosity switch, read once at load.
class IPC_EXPORT LogSetting {
  public:
    // The value of "vendor.debug.ipc.framework.log" at load time (0 if unset).
    static int32_t logLevel() { return sLogLevel; }

    static int32_t sLogLevel;  // written only by the library's static initialiser
};

// Module identities: the synchronisation primitives log under one, the rest of
// the library under the other. The debug gate tests the identity with its low
// 12 bits cleared against `ULogger::sNormalDetailsMask`.
inline constexpr uint32_t kLogModuleCore = 0x401034;
inline constexpr uint32_t kLogModuleSync = 0x101006;

// What a source file logs as: the tag, the file path shown in lines, and the
// module identity.
struct LogSite {
    const char* tag;
    const char* file;
    uint32_t moduleId;
};

namespace logging {

using Kestrel::Utils::ULog::ULogger;

// Levels, numbered as the debug-print sink numbers them.
enum Level : int { kDebug = 0, kError = 1, kWarning = 2, kInfo = 3 };

inline constexpr int kBufferSize = 1024;

inline bool debugEnabled(const LogSite& site) {
    const uint32_t mask = site.moduleId & ~0xFFFu;
    return LogSetting::logLevel() >= 1 && ULogger::sDetailsLevel >= 5 &&
           (ULogger::sNormalDetailsMask & mask) == mask;
}
inline bool infoEnabled() { return ULogger::sDetailsLevel >= 3; }
inline bool warningEnabled() { return ULogger::sDetailsLevel >= 2; }

// Never called: lets the compiler check each site's format against its
// arguments.
inline void checkFormat(const char* /*format*/, ...) __attribute__((format(printf, 1, 2)));
inline void checkFormat(const char* /*format*/, ...) {}

// Writes the frame "%s[%s] %s:%d %s() %s" into `buffer` (zeroed first); the last
// field is `format` unexpanded. Aborts the process when the frame does not fit.
IPC_EXPORT void writeFrame(char* buffer, Level level, const LogSite& site, int line,
                           const char* function, const char* format);

// Formats the plain message and records it with the unified logger.
IPC_EXPORT void record(const LogSite& site, Level level, const char* format, ...);

// Records the fatal message and flushes the unified logger, when it is selected.
IPC_EXPORT void recordFatal(const LogSite& site, const char* format, ...);

inline bool debugPrintSelected(Level level) {
    return (ULogger::sMode & 1u) != 0 && (g_logInfoLv[level].flags & 0x80u) != 0;
}
inline bool uloggerSelected() { return (ULogger::sMode & 0xAu) != 0; }

template <typename... Args>
void emit(const LogSite& site, Level level, int line, const char* function, const char* format,
          Args... args) {
    if (debugPrintSelected(level)) {
        char buffer[kBufferSize];
        writeFrame(buffer, level, site, line, function, format);
        log_dbg_print(site.tag, static_cast<cam_debug_level_t>(level), buffer, args...);
    }
    if (uloggerSelected()) {
        record(site, level, format, args...);
    }
}

// An error line: the debug-print sink gets `framed` (the message followed by
// " (%s){#%d:%s}") with the function, line and file appended to the arguments.
template <typename... Args>
void emitError(const LogSite& site, int line, const char* function, const char* plain,
               const char* framed, Args... args) {
    if (debugPrintSelected(kError)) {
        char buffer[kBufferSize];
        writeFrame(buffer, kError, site, line, function, framed);
        log_dbg_print(site.tag, static_cast<cam_debug_level_t>(kError), buffer, args..., function,
                      line, site.file);
    }
    if (uloggerSelected()) {
        record(site, kError, plain, args...);
    }
}

template <typename... Args>
[[noreturn]] void fatal(const LogSite& site, int line, const char* function, const char* plain,
                        const char* framed, Args... args) {
    recordFatal(site, plain, args...);
    __android_log_assert(nullptr, site.tag, framed, args..., function, line, site.file);
}

}  // namespace logging
}  // namespace Kestrel::ipc::utils

#define IPC_LOG_SUFFIX " (%s){#%d:%s}"

#define IPC_LOG_AT(gate, level, format, ...)                                                  \
    do {                                                                                      \
        if (gate) {                                                                           \
            if (false) {                                                                      \
                ::Kestrel::ipc::utils::logging::checkFormat(format, ##__VA_ARGS__);           \
            }                                                                                 \
            ::Kestrel::ipc::utils::logging::emit(kLogSite, level, __LINE__, __func__, format, \
                                                 ##__VA_ARGS__);                              \
        }                                                                                     \
    } while (false)

#define IPC_LOGD(format, ...)                                          \
    IPC_LOG_AT(::Kestrel::ipc::utils::logging::debugEnabled(kLogSite), \
               ::Kestrel::ipc::utils::logging::kDebug, format, ##__VA_ARGS__)
#define IPC_LOGI(format, ...)                                 \
    IPC_LOG_AT(::Kestrel::ipc::utils::logging::infoEnabled(), \
               ::Kestrel::ipc::utils::logging::kInfo, format, ##__VA_ARGS__)
#define IPC_LOGW(format, ...)                                    \
    IPC_LOG_AT(::Kestrel::ipc::utils::logging::warningEnabled(), \
               ::Kestrel::ipc::utils::logging::kWarning, format, ##__VA_ARGS__)

#define IPC_LOGE(format, ...)                                                            \
    do {                                                                                 \
        if (false) {                                                                     \
            ::Kestrel::ipc::utils::logging::checkFormat(format, ##__VA_ARGS__);          \
        }                                                                                \
        ::Kestrel::ipc::utils::logging::emitError(kLogSite, __LINE__, __func__, format,  \
                                                  format IPC_LOG_SUFFIX, ##__VA_ARGS__); \
    } while (false)

#define IPC_FATAL(format, ...)                                                       \
    do {                                                                             \
        if (false) {                                                                 \
            ::Kestrel::ipc::utils::logging::checkFormat(format, ##__VA_ARGS__);      \
        }                                                                            \
        ::Kestrel::ipc::utils::logging::fatal(kLogSite, __LINE__, __func__, format,  \
                                              format IPC_LOG_SUFFIX, ##__VA_ARGS__); \
    } while (false)
