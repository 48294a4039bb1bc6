#include <android/log.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

extern "C" void __android_log_assert(const char* cond, const char* tag, const char* fmt, ...) {
    std::fprintf(stderr, "%s: ", tag != nullptr ? tag : "");
    if (fmt != nullptr) {
        va_list args;
        va_start(args, fmt);
        std::vfprintf(stderr, fmt, args);
        va_end(args);
    } else if (cond != nullptr) {
        std::fputs(cond, stderr);
    }
    std::fputc('\n', stderr);
    std::fflush(stderr);
    std::abort();
}
