// A fixed histogram of durations in power-of-two nanosecond buckets, with
// the exact maximum: lock-free to add to, readable from any thread.
// Library-internal.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace Kestrel::ipc::observe {

class DelayHistogram {
  public:
    static constexpr size_t kBuckets = 48;  // up to 2^47 ns, about 39 hours

    void add(int64_t nanoseconds);
    // The upper bound of the bucket holding the `permille`-th value of the
    // sorted sample (0 when empty).
    int64_t percentile(unsigned permille) const;
    int64_t max() const { return mMax.load(std::memory_order_relaxed); }

  private:
    std::atomic<uint64_t> mBuckets[kBuckets]{};
    std::atomic<int64_t> mMax{0};
};

}  // namespace Kestrel::ipc::observe
