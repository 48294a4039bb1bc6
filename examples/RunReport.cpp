#include "RunReport.h"

#include <algorithm>
#include <cstdio>

namespace demo {

namespace {

double percentileMicros(std::vector<std::chrono::nanoseconds> values, double fraction) {
    if (values.empty()) {
        return 0.0;
    }
    std::sort(values.begin(), values.end());
    const auto index = static_cast<size_t>(fraction * static_cast<double>(values.size() - 1));
    return static_cast<double>(values[index].count()) / 1000.0;
}

}  // namespace

bool RunReport::success() const {
    return repliesLost == 0 && failedStatuses == 0 && buffersVerified == buffersExpected &&
           leakedDescriptors == 0 && childReaped;
}

void RunReport::print() const {
    const double seconds = static_cast<double>(mElapsed.count()) / 1e9;
    const double perSecond = seconds > 0 ? static_cast<double>(mLatencies.size()) / seconds : 0;
    std::printf("\n");
    std::printf("  %-24s %zu\n", "requests", requests);
    std::printf("  %-24s %zu\n", "descriptors passed", descriptorsPassed);
    std::printf("  %-24s %.1f us\n", "round trip, median", percentileMicros(mLatencies, 0.5));
    std::printf("  %-24s %.1f us\n", "round trip, 99th pct", percentileMicros(mLatencies, 0.99));
    std::printf("  %-24s %.0f requests/s\n", "throughput", perSecond);
    std::printf("  %-24s %zu / %zu\n", "buffers transformed", buffersVerified, buffersExpected);
    std::printf("  %-24s %zu\n", "replies lost", repliesLost);
    std::printf("  %-24s %zu\n", "failed statuses", failedStatuses);
    std::printf("  %-24s %ld\n", "leaked descriptors", leakedDescriptors);
    std::printf("  %-24s %s\n", "algorithm process",
                childReaped ? "terminated and reaped" : "NOT reaped");
    std::printf("\nverdict: %s\n",
                success() ? "every buffer came back transformed" : "FAILED (see the table above)");
    std::fflush(stdout);
}

}  // namespace demo
