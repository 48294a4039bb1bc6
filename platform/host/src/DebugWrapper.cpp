#include <debugwrapper/DebugWrapper.h>

#include <cstdarg>
#include <cstdio>

extern "C" {

cam_log_info_t g_logInfoLv[4] = {
        {0x80, "D "},
        {0x80, "E "},
        {0x80, "W "},
        {0x80, "I "},
};

const char* get_filename_log_control(const char* file) { return file; }

void log_dbg_print(const char* /*tag*/, cam_debug_level_t /*level*/, const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    std::vfprintf(stderr, fmt, args);
    va_end(args);
    std::fputc('\n', stderr);
}
}
