// Marks the classes and functions that libvelacam_ipc_core exports; the
// library is built with hidden visibility, so everything else stays private.
//
// Every public header includes this one first among the library's, so that a
// compiler set to a standard before C++17 stops here, with one line saying
// so, instead of at the first C++17 feature a header uses.
#pragma once

#if !defined(__cplusplus) || __cplusplus < 201703L
#error "libvelacam_ipc_core needs C++17 or later: compile with -std=c++17 (or a later standard)"
// A missing header is fatal where #error is not: nothing below is compiled.
#include <ipc/stop-here-the-library-needs-cxx17>
#endif

#define IPC_EXPORT __attribute__((visibility("default")))
