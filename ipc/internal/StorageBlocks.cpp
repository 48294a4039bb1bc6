#include "StorageBlocks.h"

#include <ipc/utils/Mutex.h>
#include <pthread.h>

#include <new>

namespace Kestrel::ipc::storage_blocks {

namespace {

// Blocks below this size come from malloc's heap, which reuses them without
// faulting; above it glibc maps and unmaps (or trims) them.
constexpr size_t kLargeBlock = size_t{64} * 1024;
// Large requests are rounded up to a multiple of this, so that a block fits
// every request of its class and give() finds the class again from `bytes`.
constexpr size_t kSizeClass = size_t{64} * 1024;
// What is kept at most: a few blocks, none above 1 MiB (at most 4 MiB).
constexpr size_t kKeptBlocks = 4;
constexpr size_t kLargestKept = size_t{1024} * 1024;

size_t classOf(size_t bytes) { return (bytes + kSizeClass - 1) / kSizeClass * kSizeClass; }

bool isKeptSize(size_t bytes) { return bytes >= kLargeBlock && bytes <= kLargestKept; }

class KeptBlocks {
  public:
    // A kept block of `size` bytes, or null.
    void* takeOf(size_t size) IPC_EXCLUDES(mMutex) {
        utils::LockGuard lock(mMutex);
        for (size_t i = mCount; i-- > 0;) {
            if (mBlocks[i].size == size) {
                void* block = mBlocks[i].block;
                removeAt(i);
                return block;
            }
        }
        return nullptr;
    }

    // Keeps `block`; returns the block that no longer fits (the oldest), or
    // null.
    void* keep(void* block, size_t size) IPC_EXCLUDES(mMutex) {
        utils::LockGuard lock(mMutex);
        void* evicted = nullptr;
        if (mCount == kKeptBlocks) {
            evicted = mBlocks[0].block;
            removeAt(0);
        }
        mBlocks[mCount++] = Block{block, size};
        return evicted;
    }

    // Held across fork(), as malloc holds its own locks: a child must not
    // start with the lock taken by a thread it does not have, or its first
    // large message would wait for it forever.
    void lockBeforeFork() IPC_ACQUIRE(mMutex) { mMutex.lock(); }
    void unlockAfterFork() IPC_RELEASE(mMutex) { mMutex.unlock(); }

  private:
    struct Block {
        void* block;
        size_t size;
    };

    void removeAt(size_t index) IPC_REQUIRES(mMutex) {
        for (size_t i = index + 1; i < mCount; ++i) {
            mBlocks[i - 1] = mBlocks[i];
        }
        --mCount;
    }

    utils::Mutex mMutex;
    Block mBlocks[kKeptBlocks] IPC_GUARDED_BY(mMutex) = {};  // oldest first
    size_t mCount IPC_GUARDED_BY(mMutex) = 0;
};

KeptBlocks& keptBlocks();

void lockBeforeFork() IPC_NO_THREAD_SAFETY_ANALYSIS { keptBlocks().lockBeforeFork(); }
void unlockAfterFork() IPC_NO_THREAD_SAFETY_ANALYSIS { keptBlocks().unlockAfterFork(); }

// Never destroyed: messages may still be freed while the process exits.
KeptBlocks& keptBlocks() {
    static KeptBlocks* const blocks = [] {
        auto* const created = new KeptBlocks;
        // Fails only without memory for the handlers; the blocks still work,
        // and a child forked meanwhile is back to taking its chances.
        (void)pthread_atfork(lockBeforeFork, unlockAfterFork, unlockAfterFork);
        return created;
    }();
    return *blocks;
}

}  // namespace

void* take(size_t bytes) {
    if (!isKeptSize(bytes)) {
        return ::operator new(bytes);
    }
    const size_t size = classOf(bytes);
    void* block = keptBlocks().takeOf(size);
    return block != nullptr ? block : ::operator new(size);
}

void give(void* block, size_t bytes) {
    if (block == nullptr) {
        return;
    }
    if (!isKeptSize(bytes)) {
        ::operator delete(block);
        return;
    }
    ::operator delete(keptBlocks().keep(block, classOf(bytes)));
}

}  // namespace Kestrel::ipc::storage_blocks
