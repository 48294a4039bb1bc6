#include "FaultPlan.h"

#include <link.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace velacam::faults {

namespace {

constexpr const char* kLibraryName = "libvelacam_ipc_core.so";

struct Settings {
    uint64_t seed = 1;
    uint32_t ratePerMillion = 50000;
    uint32_t calls = (1u << kCallCount) - 1;
    uint32_t kinds = (1u << kKindCount) - 1;
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

const char* const kCallNames[kCallCount] = {"sendmmsg", "sendmsg", "recvmmsg", "recvmsg", "ppoll",
                                            "read",     "write",   "eventfd",  "close"};
const char* const kKindNames[kKindCount] = {"eintr",      "eagain", "enomem", "emfile",
                                            "econnreset", "short",  "ctrunc"};

uint32_t parseList(const char* text, const char* const* names, size_t count) {
    if (text == nullptr || *text == '\0') {
        return (1u << count) - 1;
    }
    uint32_t mask = 0;
    char item[32];
    const char* start = text;
    while (*start != '\0') {
        const char* end = std::strchr(start, ',');
        const size_t length =
                end != nullptr ? static_cast<size_t>(end - start) : std::strlen(start);
        if (length < sizeof(item)) {
            std::memcpy(item, start, length);
            item[length] = '\0';
            for (size_t i = 0; i < count; ++i) {
                if (std::strcmp(item, names[i]) == 0) {
                    mask |= 1u << i;
                }
            }
        }
        start += length + (end != nullptr ? 1 : 0);
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
    s.kinds = parseList(std::getenv("VELACAM_FAULT_KINDS"), kKindNames, kKindCount);
    if (const char* limit = std::getenv("VELACAM_FAULT_LIMIT");
        limit != nullptr && *limit != '\0') {
        s.limit = std::strtoull(limit, nullptr, 10);
    }
    s.report = std::getenv("VELACAM_FAULT_REPORT");
    dl_iterate_phdr(findLibrary, &s);
    s.ready = s.textEnd != 0;
    gSettings = s;
}

__attribute__((destructor)) void writeReport() {
    if (gSettings.report == nullptr) {
        return;
    }
    std::FILE* out = std::fopen(gSettings.report, "a");
    if (out == nullptr) {
        return;
    }
    for (size_t c = 0; c < kCallCount; ++c) {
        for (size_t k = 0; k < kKindCount; ++k) {
            const uint64_t count = gPlanted[c][k].load();
            if (count != 0) {
                std::fprintf(out, "%s %s %llu\n", kCallNames[c], kKindNames[k],
                             static_cast<unsigned long long>(count));
            }
        }
    }
    std::fclose(out);
}

}  // namespace

const char* callName(Call call) { return kCallNames[static_cast<size_t>(call)]; }
const char* kindName(Kind kind) { return kKindNames[static_cast<size_t>(kind)]; }

bool faultApplies(Call call, Kind kind) {
    switch (call) {
        case Call::kSendmmsg:
            return kind != Kind::kEmfile && kind != Kind::kCtrunc;
        case Call::kSendmsg:
            return kind == Kind::kEintr || kind == Kind::kEagain || kind == Kind::kEnomem ||
                   kind == Kind::kEconnreset;
        case Call::kRecvmmsg:
            return kind != Kind::kEmfile;
        case Call::kRecvmsg:
            return kind != Kind::kEmfile && kind != Kind::kShort;
        case Call::kPpoll:
            return kind == Kind::kEintr || kind == Kind::kEnomem;
        case Call::kRead:
        case Call::kWrite:
            return kind == Kind::kEintr || kind == Kind::kEagain;
        case Call::kEventfd:
            return kind == Kind::kEmfile || kind == Kind::kEnomem;
        case Call::kClose:
            return kind == Kind::kEintr;
    }
    return false;
}

bool plant(Call call, const void* caller, Kind& kind) {
    const Settings& s = gSettings;
    const auto address = reinterpret_cast<uintptr_t>(caller);
    if (!s.ready || (s.calls & (1u << static_cast<unsigned>(call))) == 0 || address < s.textStart ||
        address >= s.textEnd) {
        return false;
    }
    Kind applicable[kKindCount];
    size_t count = 0;
    for (size_t k = 0; k < kKindCount; ++k) {
        if ((s.kinds & (1u << k)) != 0 && faultApplies(call, static_cast<Kind>(k))) {
            applicable[count++] = static_cast<Kind>(k);
        }
    }
    if (count == 0) {
        return false;
    }
    const uint64_t draw = mix(s.seed ^ mix(gDecisions.fetch_add(1, std::memory_order_relaxed)));
    if (draw % 1000000 >= s.ratePerMillion ||
        gPlantedTotal.fetch_add(1, std::memory_order_relaxed) >= s.limit) {
        return false;
    }
    kind = applicable[(draw >> 32) % count];
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

namespace velacam::faults {}  // namespace velacam::faults
