#include "LoopRecord.h"

#include <new>

namespace Kestrel::ipc::observe {

void LoopRecord::enqueued(const Message* message, int64_t nowNs) {
    const uint64_t enqueued = mEnqueued.fetch_add(1, std::memory_order_relaxed) + 1;
    const uint64_t dispatched = mDispatched.load(std::memory_order_relaxed);
    const uint64_t waiting = enqueued > dispatched ? enqueued - dispatched : 0;
    uint64_t highWater = mHighWater.load(std::memory_order_relaxed);
    while (waiting > highWater &&
           !mHighWater.compare_exchange_weak(highWater, waiting, std::memory_order_relaxed)) {
    }
    utils::LockGuard lock(mLock);
    try {
        mEnqueuedAt[message] = nowNs;
    } catch (const std::bad_alloc&) {
        // Its delay goes unmeasured.
    }
}

void LoopRecord::taken(const Message* message, int64_t nowNs) {
    mDispatched.fetch_add(1, std::memory_order_relaxed);
    int64_t enqueuedAt = -1;
    {
        utils::LockGuard lock(mLock);
        const auto found = mEnqueuedAt.find(message);
        if (found != mEnqueuedAt.end()) {
            enqueuedAt = found->second;
            mEnqueuedAt.erase(found);
        }
    }
    if (enqueuedAt >= 0) {
        mDelays.add(nowNs - enqueuedAt);
    }
}

void LoopRecord::dispatched(uint32_t type, int64_t durationNs) {
    const int64_t threshold = slowThresholdNs();
    if (threshold > 0) {
        mEpisode.dispatched(type, durationNs, threshold);
    }
}

LoopStatistics LoopRecord::figures() const {
    LoopStatistics figures;
    figures.enqueued = mEnqueued.load(std::memory_order_relaxed);
    figures.dispatched = mDispatched.load(std::memory_order_relaxed);
    figures.highWater = mHighWater.load(std::memory_order_relaxed);
    figures.delayP50 = std::chrono::nanoseconds(mDelays.percentile(500));
    figures.delayP99 = std::chrono::nanoseconds(mDelays.percentile(990));
    figures.delayMax = std::chrono::nanoseconds(mDelays.max());
    return figures;
}

}  // namespace Kestrel::ipc::observe
