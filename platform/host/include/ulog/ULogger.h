// Host stand-in for the camera stack's unified logger.
//
// The statics select and gate the sinks; they are plain variables read by
// every log site without synchronisation, so set them before starting the
// threads that log. Tests capture lines by installing their own subclass in
// `sULogger` and setting `sMode` to 2.
//
// Host defaults: `sMode` 1 (standard error), `sDetailsLevel` 1 (errors only,
// so a correct run prints nothing), every module in `sNormalDetailsMask`, and
// a logger that keeps the last lines in memory. The environment variable
// VELACAM_LOG_LEVEL, read once when this library is loaded, sets the level:
// 2 warnings, 3 info, 5 debug (debug lines also need the property
// "vendor.debug.ipc.framework.log" set to 1). Any other value is reported on
// standard error and ignored. Unset, the level is 5 when the property asks
// for debug lines, so that the property alone turns them on.
#pragma once

#include <cstdint>

namespace Kestrel::Utils::ULog {

class ULogger {
  public:
    virtual ~ULogger();
    // One line: module identity of the calling file, tag, level
    // (1 error, 2 warning, 3 info, 5 debug), the text and snprintf's result.
    virtual void record(uint32_t moduleId, const char* tag, uint32_t level, const char* text,
                        int length);
    // Called with 1 just before a fatal assertion; the host one flushes.
    virtual void flush(int reason);

    static uint32_t sMode;               // bit 0: debug-print sink; bits 1, 3: this logger
    static uint32_t sDetailsLevel;       // highest level that passes the gate
    static uint32_t sNormalDetailsMask;  // module mask of the debug gate
    static ULogger* sULogger;            // the instance `record` is called on
};

}  // namespace Kestrel::Utils::ULog
