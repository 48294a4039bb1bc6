// The figures of one DefaultReactor, kept beside it. Library-internal.
#pragma once

#include <atomic>
#include <cstdint>

namespace Kestrel::ipc::observe {

struct ReactorRecord {
    // Written by the loop's thread, read by any.
    std::atomic<uint64_t> cycles{0};
    std::atomic<uint64_t> dispatches{0};
    std::atomic<uint64_t> hangUps{0};
    std::atomic<int64_t> longestRunNs{0};
};

}  // namespace Kestrel::ipc::observe
