// Host stand-in for the camera stack's debug-print sink.
//
// On a host every level is enabled and every line goes to standard error.
#pragma once

#include <cstdint>

extern "C" {

typedef enum {
    CAM_DEBUG_LEVEL_DEBUG = 0,
    CAM_DEBUG_LEVEL_ERROR = 1,
    CAM_DEBUG_LEVEL_WARNING = 2,
    CAM_DEBUG_LEVEL_INFO = 3,
} cam_debug_level_t;

// One record per level: the top bit of `flags` enables the level, `prefix`
// starts every line of that level.
typedef struct {
    uint8_t flags;
    const char* prefix;
} cam_log_info_t;

extern cam_log_info_t g_logInfoLv[4];

// Returns the text that stands for `file` in a log line (the host returns it
// unchanged).
const char* get_filename_log_control(const char* file);

// Formats `fmt` with the remaining arguments and prints it with a newline.
void log_dbg_print(const char* tag, cam_debug_level_t level, const char* fmt, ...);
}
