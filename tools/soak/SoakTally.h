// What a soak run counted, and the table and verdict made of it.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "SoakProtocol.h"
#include "SoakServer.h"

namespace velacam::soak {

struct RoleTally {
    uint64_t started = 0;
    uint64_t reports = 0;
    uint64_t requests = 0;
    uint64_t replies = 0;
    uint64_t sendErrors[kErrorKinds] = {};
    uint64_t descriptorsSent = 0;
    uint32_t latencyMaxMs = 0;
    uint32_t latencyP99Ms = 0;  // the worst client's
    uint32_t latencyMedianMs = 0;
};

struct SoakTally {
    unsigned seconds = 0;
    uint64_t seed = 0;
    RoleTally roles[kRoleCount];
    uint64_t killsSent = 0;
    uint64_t stopsSent = 0;
    uint64_t stoppedMs = 0;
    uint64_t stallsWithinBound = 0;
    uint64_t stallsBeyondBound = 0;
    uint64_t lies[kLieCount] = {};
    ServerCounters server;
    size_t descriptorsAtStart = 0;
    size_t descriptorsAtEnd = 0;
    size_t rssAtStart = 0;
    size_t rssAtEnd = 0;
    bool rssJudged = true;
    std::vector<std::string> violations;

    void add(const ClientReport& report);
    void violation(std::string text);
    // The table, then "verdict: ..." as the last line.
    void print(std::FILE* out) const;
};

}  // namespace velacam::soak
