#include "DelayHistogram.h"

namespace Kestrel::ipc::observe {

namespace {

// Bucket b holds the durations d with 2^(b-1) < d <= 2^b (bucket 0: d <= 1).
size_t bucketOf(int64_t nanoseconds) {
    if (nanoseconds <= 1) {
        return 0;
    }
    const size_t bits =
            64 - static_cast<size_t>(__builtin_clzll(static_cast<uint64_t>(nanoseconds - 1)));
    return bits < DelayHistogram::kBuckets ? bits : DelayHistogram::kBuckets - 1;
}

}  // namespace

void DelayHistogram::add(int64_t nanoseconds) {
    if (nanoseconds < 0) {
        nanoseconds = 0;
    }
    mBuckets[bucketOf(nanoseconds)].fetch_add(1, std::memory_order_relaxed);
    int64_t largest = mMax.load(std::memory_order_relaxed);
    while (nanoseconds > largest &&
           !mMax.compare_exchange_weak(largest, nanoseconds, std::memory_order_relaxed)) {
    }
}

int64_t DelayHistogram::percentile(unsigned permille) const {
    uint64_t counts[kBuckets];
    uint64_t total = 0;
    for (size_t b = 0; b < kBuckets; ++b) {
        counts[b] = mBuckets[b].load(std::memory_order_relaxed);
        total += counts[b];
    }
    if (total == 0) {
        return 0;
    }
    // The rank of the wanted value, 1-based, rounded up.
    const uint64_t rank = (total * permille + 999) / 1000;
    uint64_t seen = 0;
    for (size_t b = 0; b < kBuckets; ++b) {
        seen += counts[b];
        if (seen >= rank && counts[b] != 0) {
            const int64_t bound = int64_t{1} << b;
            const int64_t largest = max();
            return bound < largest ? bound : largest;
        }
    }
    return max();
}

}  // namespace Kestrel::ipc::observe
