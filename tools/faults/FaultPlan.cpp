#include "FaultPlan.h"

#include <link.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>

namespace velacam::faults {

namespace {

constexpr const char* kLibraryName = "libvelacam_ipc_core.so";
const char* const kCallNames[kCallCount] = {"sendmmsg", "sendmsg", "recvmmsg", "recvmsg", "ppoll",
                                            "read",     "write",   "eventfd",  "close"};
const char* const kKindNames[kKindCount] = {"eintr",      "eagain", "enomem", "emfile",
                                            "econnreset", "short",  "ctrunc"};
// The faults the kernel can give each call, in the order of Call.
const char* const kApplicable[kCallCount] = {"eintr,eagain,enomem,econnreset,short",
                                             "eintr,eagain,enomem,econnreset",
                                             "eintr,eagain,enomem,econnreset,short,ctrunc",
                                             "eintr,eagain,enomem,econnreset,ctrunc",
                                             "eintr,enomem",
                                             "eintr,eagain",
                                             "eintr,eagain",
                                             "emfile,enomem",
                                             "eintr"};

struct Settings {
    uint64_t seed = 1;
    uint32_t ratePerMillion = 50000;
    uint32_t calls = 0;
    // The faults asked for that each call can get, in the order of Kind.
    Kind applicable[kCallCount][kKindCount] = {};
    size_t applicableCount[kCallCount] = {};
    uint64_t limit = UINT64_MAX;
    const char* report = nullptr;
    uintptr_t textStart = 0;  // the library's executable segments
    uintptr_t textEnd = 0;
    bool ready = false;
};

Settings gSettings;
std::atomic<uint64_t> gDecisions{0};
std::atomic<uint64_t> gPlantedTotal{0};  // decisions to plant, for the limit
std::atomic<uint64_t> gTookEffect{0};    // faults planted that took effect
std::atomic<uint64_t> gPlanted[kCallCount][kKindCount];

// The bits of the names in the comma-separated `text` (all of them when empty).
uint32_t parseList(const char* text, const char* const* names, size_t count) {
    if (text == nullptr || *text == '\0') {
        return (1u << count) - 1;
    }
    uint32_t mask = 0;
    std::istringstream list(text);
    for (std::string item; std::getline(list, item, ',');) {
        for (size_t i = 0; i < count; ++i) {
            mask |= item == names[i] ? 1u << i : 0;
        }
    }
    return mask;
}

int findLibrary(dl_phdr_info* info, size_t, void* data) {
    auto* settings = static_cast<Settings*>(data);
    if (info->dlpi_name == nullptr || std::strstr(info->dlpi_name, kLibraryName) == nullptr) {
        return 0;
    }
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const ElfW(Phdr)& segment = info->dlpi_phdr[i];
        if (segment.p_type == PT_LOAD && (segment.p_flags & PF_X) != 0) {
            settings->textStart = info->dlpi_addr + segment.p_vaddr;
            settings->textEnd = settings->textStart + segment.p_memsz;
        }
    }
    return 1;
}

uint64_t mix(uint64_t x) {
    x += 0x9e3779b97f4a7c15ull;
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
    return x ^ (x >> 31);
}

__attribute__((constructor)) void readSettings() {
    Settings s;
    if (const char* seed = std::getenv("VELACAM_FAULT_SEED")) {
        s.seed = std::strtoull(seed, nullptr, 10);
    }
    if (const char* rate = std::getenv("VELACAM_FAULT_RATE")) {
        s.ratePerMillion = static_cast<uint32_t>(std::strtod(rate, nullptr) * 1e6);
    }
    s.calls = parseList(std::getenv("VELACAM_FAULT_CALLS"), kCallNames, kCallCount);
    const uint32_t kinds = parseList(std::getenv("VELACAM_FAULT_KINDS"), kKindNames, kKindCount);
    for (size_t c = 0; c < kCallCount; ++c) {
        const uint32_t mask = kinds & parseList(kApplicable[c], kKindNames, kKindCount);
        for (size_t k = 0; k < kKindCount; ++k) {
            if ((mask & (1u << k)) != 0) {
                s.applicable[c][s.applicableCount[c]++] = static_cast<Kind>(k);
            }
        }
    }
    if (const char* limit = std::getenv("VELACAM_FAULT_LIMIT"); limit != nullptr && *limit) {
        s.limit = std::strtoull(limit, nullptr, 10);
    }
    s.report = std::getenv("VELACAM_FAULT_REPORT");
    dl_iterate_phdr(findLibrary, &s);
    s.ready = s.textEnd != 0;
    gSettings = s;
}

__attribute__((destructor)) void writeReport() {
    std::FILE* out = gSettings.report != nullptr ? std::fopen(gSettings.report, "a") : nullptr;
    if (out == nullptr) {
        return;
    }
    for (size_t c = 0; c < kCallCount; ++c) {
        for (size_t k = 0; k < kKindCount; ++k) {
            if (const uint64_t count = gPlanted[c][k].load(); count != 0) {
                std::fprintf(out, "%s %s %llu\n", kCallNames[c], kKindNames[k],
                             static_cast<unsigned long long>(count));
            }
        }
    }
    std::fclose(out);
}

}  // namespace

bool plant(Call call, const void* caller, Kind& kind) {
    const Settings& s = gSettings;
    const auto index = static_cast<unsigned>(call);
    const auto address = reinterpret_cast<uintptr_t>(caller);
    const size_t count = s.applicableCount[index];
    if (!s.ready || (s.calls & (1u << index)) == 0 || address < s.textStart ||
        address >= s.textEnd || count == 0) {
        return false;
    }
    const uint64_t draw = mix(s.seed ^ mix(gDecisions.fetch_add(1, std::memory_order_relaxed)));
    if (draw % 1000000 >= s.ratePerMillion ||
        gPlantedTotal.fetch_add(1, std::memory_order_relaxed) >= s.limit) {
        return false;
    }
    kind = s.applicable[index][(draw >> 32) % count];
    return true;
}

void planted(Call call, Kind kind) {
    gPlanted[static_cast<size_t>(call)][static_cast<size_t>(kind)].fetch_add(1);
    gTookEffect.fetch_add(1);
}

}  // namespace velacam::faults

extern "C" __attribute__((visibility("default"))) uint64_t velacam_faults_planted() {
    return velacam::faults::gTookEffect.load();
}
