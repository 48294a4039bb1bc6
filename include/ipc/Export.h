// Marks the classes and functions that libvelacam_ipc_core exports; the
// library is built with hidden visibility, so everything else stays private.
#pragma once

#define IPC_EXPORT __attribute__((visibility("default")))
