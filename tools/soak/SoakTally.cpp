#include "SoakTally.h"

#include <algorithm>
#include <cstring>
#include <string>

namespace velacam::soak {

namespace {

constexpr size_t kViolationsShown = 20;

std::string errorsText(const uint64_t (&errors)[kErrorKinds]) {
    std::string text;
    for (size_t i = 0; i < kErrorKinds; ++i) {
        if (errors[i] != 0) {
            text += (text.empty() ? "" : ", ") + std::string(errorName(i)) + " x" +
                    std::to_string(errors[i]);
        }
    }
    return text.empty() ? "none" : text;
}

uint64_t sum(const uint64_t (&values)[kErrorKinds]) {
    uint64_t total = 0;
    for (uint64_t v : values) {
        total += v;
    }
    return total;
}

double mebibytes(size_t bytes) { return static_cast<double>(bytes) / (1024.0 * 1024.0); }

// One indented line of the table: a label and its count.
void countLine(std::FILE* out, const std::string& label, uint64_t count) {
    std::fprintf(out, "  %-46s %llu\n", label.c_str(), static_cast<unsigned long long>(count));
}

}  // namespace

void SoakTally::add(const ClientReport& report) {
    RoleTally& role = roles[static_cast<size_t>(report.role) % kRoleCount];
    ++role.reports;
    role.requests += report.requests;
    role.replies += report.replies;
    for (size_t i = 0; i < kErrorKinds; ++i) {
        role.sendErrors[i] += report.sendErrors[i];
    }
    role.descriptorsSent += report.descriptorsSent;
    role.latencyMaxMs = std::max(role.latencyMaxMs, report.latencyMaxMs);
    role.latencyP99Ms = std::max(role.latencyP99Ms, report.latencyP99Ms);
    role.latencyMedianMs = std::max(role.latencyMedianMs, report.latencyMedianMs);
    stallsWithinBound += report.stallsWithinBound;
    stallsBeyondBound += report.stallsBeyondBound;
    for (size_t i = 0; i < kLieCount; ++i) {
        lies[i] += report.lies[i];
    }
    if (report.violations != 0) {
        violation("client " + std::to_string(report.slot) + " (" + roleName(report.role) +
                  "): " + std::to_string(report.violations) + " violation(s), the first: " +
                  std::string(report.firstViolation,
                              strnlen(report.firstViolation, sizeof(report.firstViolation))));
    }
}

void SoakTally::violation(std::string text) { violations.push_back(std::move(text)); }

void SoakTally::print(std::FILE* out) const {
    const RoleTally& good = roles[static_cast<size_t>(Role::kWellBehaved)];
    std::fprintf(out, "soak: %u s, seed %llu, %zu well-behaved clients, %zu misbehaving slots\n",
                 seconds, static_cast<unsigned long long>(seed), kWellBehavedClients,
                 kMisbehavingSlots);
    std::fprintf(out,
                 "bounds: each well-behaved request ends once, in order, within %lld ms; server "
                 "descriptors back to their start exactly; RSS at most %.0f MiB above its start\n",
                 static_cast<long long>(kReplyBound.count()), mebibytes(kRssToleranceBytes));
    std::fprintf(out, "\n%-48s %s\n", "well-behaved requests sent",
                 std::to_string(good.requests).c_str());
    std::fprintf(out, "%-48s %llu\n", "  replies, in order, status ok",
                 static_cast<unsigned long long>(good.replies));
    std::fprintf(out, "%-48s %llu (%s)\n", "  documented errors (send refused, nothing sent)",
                 static_cast<unsigned long long>(sum(good.sendErrors)),
                 errorsText(good.sendErrors).c_str());
    std::fprintf(out, "%-48s %llu\n", "  descriptors passed",
                 static_cast<unsigned long long>(good.descriptorsSent));
    std::fprintf(out, "%-48s median %u, p99 %u, max %u (worst client)\n", "  reply latency, ms",
                 good.latencyMedianMs, good.latencyP99Ms, good.latencyMaxMs);

    std::fprintf(out, "\nfaults injected (clients started by the seed)\n");
    for (size_t r = 1; r < kRoleCount; ++r) {
        countLine(out, roleName(static_cast<Role>(r)), roles[r].started);
    }
    countLine(out, "  SIGKILL sent mid-stream", killsSent);
    std::fprintf(out, "  %-46s %llu (%.1f s in all)\n", "  SIGSTOP ... SIGCONT",
                 static_cast<unsigned long long>(stopsSent), static_cast<double>(stoppedMs) / 1000);
    std::fprintf(out, "  %-46s %llu within, %llu beyond the payload wait\n", "  stalls",
                 static_cast<unsigned long long>(stallsWithinBound),
                 static_cast<unsigned long long>(stallsBeyondBound));
    for (size_t i = 0; i < kLieCount; ++i) {
        countLine(out, std::string("  lie: ") + lieName(static_cast<Lie>(i)), lies[i]);
    }
    const RoleTally& full = roles[static_cast<size_t>(Role::kFullDescriptors)];
    std::fprintf(out, "  %-46s %llu (%llu descriptors)\n", "  messages with 253 descriptors",
                 static_cast<unsigned long long>(full.requests),
                 static_cast<unsigned long long>(full.descriptorsSent));
    const RoleTally& deaf = roles[static_cast<size_t>(Role::kDeaf)];
    countLine(out, "  requests never read back", deaf.requests);

    std::fprintf(out, "\nserver\n");
    std::fprintf(out, "  %-46s %llu (%llu refused as malformed or wrong)\n", "requests served",
                 static_cast<unsigned long long>(server.requests),
                 static_cast<unsigned long long>(server.refusedRequests));
    countLine(out, "replies sent", server.replies);
    countLine(out, "descriptors received (and closed)", server.descriptorsReceived);
    std::fprintf(out, "  %-46s %s\n", "receive errors by kind",
                 errorsText(server.receiveErrors).c_str());
    std::fprintf(out, "  %-46s %s\n", "reply send errors by kind",
                 errorsText(server.sendErrors).c_str());
    countLine(out, "messages not requests (peer gone or lying)", server.notRequests);
    std::fprintf(out, "  %-46s %llu hang-ups; %llu opened, %llu closed\n", "connections",
                 static_cast<unsigned long long>(server.hangUps),
                 static_cast<unsigned long long>(server.connectionsOpened),
                 static_cast<unsigned long long>(server.connectionsClosed));
    countLine(out, "requests dropped, their client disconnected", server.droppedAfterClose);
    std::fprintf(out, "  %-46s %zu at start, %zu at end\n", "open descriptors", descriptorsAtStart,
                 descriptorsAtEnd);
    std::fprintf(out, "  %-46s %.1f MiB at start, %.1f MiB at end%s\n", "resident memory (RSS)",
                 mebibytes(rssAtStart), mebibytes(rssAtEnd),
                 rssJudged ? "" : " (not judged under AddressSanitizer)");

    if (violations.empty()) {
        std::fprintf(out, "\nverdict: every promise held\n");
        return;
    }
    std::fprintf(out, "\n");
    for (size_t i = 0; i < violations.size() && i < kViolationsShown; ++i) {
        std::fprintf(out, "violation: %s\n", violations[i].c_str());
    }
    std::fprintf(out, "verdict: FAILED: %zu violation(s)\n", violations.size());
}

}  // namespace velacam::soak
