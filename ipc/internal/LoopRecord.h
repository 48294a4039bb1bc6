// The figures of one MessageLoop (keyed by its queue), kept beside it, and
// its slow-dispatch watch. Library-internal.
#pragma once

#include <ipc/Statistics.h>
#include <ipc/utils/Mutex.h>

#include <atomic>
#include <cstdint>
#include <unordered_map>

#include "DelayHistogram.h"
#include "SlowDispatchEpisode.h"

namespace Kestrel::ipc {
class Message;
}

namespace Kestrel::ipc::observe {

class LoopRecord {
  public:
    // A producer is about to queue `message` at `nowNs`. Thread: any.
    void enqueued(const Message* message, int64_t nowNs) IPC_EXCLUDES(mLock);
    // The loop took `message` at `nowNs`. Thread: the loop's.
    void taken(const Message* message, int64_t nowNs) IPC_EXCLUDES(mLock);
    // A dispatch of a message of `type` took `durationNs`. Thread: the loop's.
    void dispatched(uint32_t type, int64_t durationNs);

    void watch(int64_t thresholdNs) {
        mSlowThresholdNs.store(thresholdNs, std::memory_order_relaxed);
    }
    int64_t slowThresholdNs() const { return mSlowThresholdNs.load(std::memory_order_relaxed); }

    LoopStatistics figures() const;

  private:
    std::atomic<uint64_t> mEnqueued{0};
    std::atomic<uint64_t> mDispatched{0};
    std::atomic<uint64_t> mHighWater{0};
    DelayHistogram mDelays;
    utils::Mutex mLock;
    // When each message now queued was enqueued (those enqueued while counting).
    std::unordered_map<const Message*, int64_t> mEnqueuedAt IPC_GUARDED_BY(mLock);
    std::atomic<int64_t> mSlowThresholdNs{0};  // 0: not watched
    SlowDispatchEpisode mEpisode;              // the loop's thread only
};

}  // namespace Kestrel::ipc::observe
