// Tells of dispatches that run longer than a loop's threshold: one warning
// when an episode of slow dispatches begins, naming the message type and the
// time taken, and one when a dispatch is back under the threshold.
// Library-internal; owned by the loop's record, called on the loop's thread.
#pragma once

#include <cstdint>

namespace Kestrel::ipc::observe {

class SlowDispatchEpisode {
  public:
    // A dispatch of a message of `type` took `durationNs` against a threshold
    // of `thresholdNs` (above 0).
    void dispatched(uint32_t type, int64_t durationNs, int64_t thresholdNs);

  private:
    bool mSlow = false;       // an episode is going on
    uint64_t mSlowCount = 0;  // slow dispatches of this episode
    int64_t mSlowestNs = 0;
};

}  // namespace Kestrel::ipc::observe
