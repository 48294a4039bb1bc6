// Writes a whole text to a descriptor, again after a signal and after a
// partial write. Library-internal: the state dump and the trace file use it.
#pragma once

#include <cstddef>

namespace Kestrel::ipc::observe {

// Returns 0 once every byte is written, or a negative errno value (-EIO when
// the descriptor takes nothing). Blocks as the descriptor's write(2) does.
[[nodiscard]] int writeAll(int fd, const char* text, size_t length);

}  // namespace Kestrel::ipc::observe
