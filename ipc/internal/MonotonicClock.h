// The one clock of the library's observation: CLOCK_MONOTONIC in
// nanoseconds, the same in every process of the machine, so that trace events
// of two processes line up. Library-internal.
#pragma once

#include <time.h>

#include <cstdint>

namespace Kestrel::ipc::observe {

inline int64_t monotonicNanoseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}

}  // namespace Kestrel::ipc::observe
