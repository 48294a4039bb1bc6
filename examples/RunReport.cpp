#include "RunReport.h"

#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

namespace demo {

namespace {

double percentileMicros(std::vector<std::chrono::nanoseconds> values, double fraction) {
    std::sort(values.begin(), values.end());
    const auto index = static_cast<size_t>(fraction * static_cast<double>(values.size() - 1));
    return static_cast<double>(values[index].count()) / 1000.0;
}

}  // namespace

bool RunReport::success() const {
    // Every request made was answered, with success, and every buffer checked.
    return requests > 0 && answered == requests && lostRequests.empty() && neverSent == 0 &&
           failedStatuses == 0 && buffersVerified == buffersExpected && leakedDescriptors == 0 &&
           !algorithmKilled && algorithmStatus && WIFEXITED(*algorithmStatus) &&
           WEXITSTATUS(*algorithmStatus) == 0;
}

void RunReport::print() const {
    const double seconds = static_cast<double>(mElapsed.count()) / 1e9;
    const double perSecond = seconds > 0 ? static_cast<double>(mLatencies.size()) / seconds : 0;
    std::printf("\n");
    std::printf("  %-24s %zu\n", "requests", requests);
    std::printf("  %-24s %zu\n", "descriptors passed", descriptorsPassed);
    if (mLatencies.empty()) {
        // No figure stands for a run that got no reply.
        std::printf("  %-24s none: no reply came\n", "round trip");
    } else {
        std::printf("  %-24s %.1f us\n", "round trip, median", percentileMicros(mLatencies, 0.5));
        std::printf("  %-24s %.1f us\n", "round trip, 99th pct",
                    percentileMicros(mLatencies, 0.99));
        std::printf("  %-24s %.0f requests/s\n", "throughput", perSecond);
    }
    std::printf("  %-24s %zu / %zu\n", "buffers transformed", buffersVerified, buffersExpected);
    std::printf("  %-24s %zu%s\n", "replies lost", lostRequests.size(),
                lostRequests.empty() ? "" : (" (requests " + idList() + ")").c_str());
    if (neverSent != 0) {
        std::printf("  %-24s %zu\n", "requests never sent", neverSent);
    }
    if (hangUpNoticedAfterMs >= 0) {
        std::printf("  %-24s %.1f ms after the last request\n", "peer hang-up noticed",
                    hangUpNoticedAfterMs);
    }
    std::printf("  %-24s %zu\n", "failed statuses", failedStatuses);
    std::printf("  %-24s %ld\n", "leaked descriptors", leakedDescriptors);
    std::printf("  %-24s %s\n", "algorithm process", algorithmFate().c_str());
    if (success()) {
        std::printf("\nverdict: every buffer came back transformed\n");
    } else if (algorithmDied()) {
        std::printf("\nverdict: FAILED: the algorithm process died; lost requests: %s\n",
                    lostRequests.empty() ? "none" : idList().c_str());
    } else {
        std::printf("\nverdict: FAILED (see the table above)\n");
    }
    std::fflush(stdout);
}

bool RunReport::algorithmDied() const {
    return algorithmKilled || (algorithmStatus && WIFSIGNALED(*algorithmStatus) &&
                               WTERMSIG(*algorithmStatus) != SIGTERM);
}

std::string RunReport::algorithmFate() const {
    if (!algorithmStatus) {
        return "NOT reaped";
    }
    const int status = *algorithmStatus;
    if (WIFSIGNALED(status)) {
        return std::string(algorithmKilled ? "killed on purpose" : "died") + " (" +
               strsignal(WTERMSIG(status)) + "), reaped";
    }
    if (WEXITSTATUS(status) == 0) {
        return "terminated and reaped";
    }
    return "exited with status " + std::to_string(WEXITSTATUS(status)) + ", reaped";
}

std::string RunReport::idList() const {
    std::string text;
    for (const uint32_t id : lostRequests) {
        text += (text.empty() ? "" : ", ") + std::to_string(id);
    }
    return text;
}

}  // namespace demo
