// Memory for message storage. Large blocks (a big payload's storage) are
// kept for the next message of the same size class when their message goes
// away, instead of being given back to malloc: glibc hands a freed block of
// that size back to the system (munmap, or a trim of the heap top), and the
// next message would then fault every page of it in again, one minor fault
// per 4 KiB, which costs more than the payload's copies.
//
// Small blocks go straight to operator new and delete. A few large blocks at
// most are kept (see StorageBlocks.cpp for the bounds), for the life of the
// process. Thread: any; the kept blocks are guarded by a mutex of their own,
// which is held across fork() so that a child can take blocks too.
// Failure: take() throws std::bad_alloc as operator new does.
#pragma once

#include <cstddef>

namespace Kestrel::ipc::storage_blocks {

// At least `bytes` of memory, aligned as operator new aligns.
void* take(size_t bytes);

// Gives back what take(`bytes`) returned, with the same `bytes`.
void give(void* block, size_t bytes);

}  // namespace Kestrel::ipc::storage_blocks
