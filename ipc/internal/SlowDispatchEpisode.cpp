#include "SlowDispatchEpisode.h"

#include <ipc/utils/Log.h>

#include <algorithm>

namespace Kestrel::ipc::observe {

namespace {
// The lines carry the loop's tag.
constexpr utils::LogSite kLogSite{"MessageLoop", "ipc/internal/SlowDispatchEpisode",
                                  utils::kLogModuleCore};

double millis(int64_t nanoseconds) { return static_cast<double>(nanoseconds) / 1e6; }
}  // namespace

void SlowDispatchEpisode::dispatched(uint32_t type, int64_t durationNs, int64_t thresholdNs) {
    if (durationNs >= thresholdNs) {
        if (!mSlow) {
            IPC_LOGW("slow dispatch: message type %u took %.3f ms (threshold %.3f ms)", type,
                     millis(durationNs), millis(thresholdNs));
            mSlow = true;
            mSlowCount = 0;
            mSlowestNs = 0;
        }
        ++mSlowCount;
        mSlowestNs = std::max(mSlowestNs, durationNs);
        return;
    }
    if (mSlow) {
        IPC_LOGW("dispatch back under %.3f ms: %llu slow in a row, the slowest %.3f ms",
                 millis(thresholdNs), static_cast<unsigned long long>(mSlowCount),
                 millis(mSlowestNs));
        mSlow = false;
    }
}

}  // namespace Kestrel::ipc::observe
