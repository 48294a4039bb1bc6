// Host stand-in for the fatal-assertion entry point of Android's liblog.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// Prints "tag: message" and a newline to standard error, flushes, and aborts.
// `cond` is accepted for the platform's signature and ignored when null.
void __android_log_assert(const char* cond, const char* tag, const char* fmt, ...)
        __attribute__((__noreturn__, __format__(printf, 3, 4)));

#ifdef __cplusplus
}
#endif
