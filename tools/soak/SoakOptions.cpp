#include "SoakOptions.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

namespace velacam::soak {

namespace {

constexpr const char* kUsage =
        "usage: velacam_soak SECONDS [--seed N] [--faults LIST]\n"
        "\n"
        "Runs one serving process and, for SECONDS (1 to 86400), three well-behaved\n"
        "clients and three slots of misbehaving ones, each drawn by the seed.\n"
        "  --seed N        replays a run (0 to 2^64-1; default: from the clock, printed)\n"
        "  --faults LIST   the misbehaviours drawn, comma-separated (default: all):\n"
        "                  kill, stop, half, stall, lie, fds253, deaf\n"
        "Prints a table and exits 0 when every promise held, 1 on any violation,\n"
        "2 on a bad command line.\n";

struct FaultName {
    const char* name;
    Role role;
};
constexpr FaultName kFaultNames[] = {
        {"kill", Role::kRequesterToKill},
        {"stop", Role::kRequesterToStop},
        {"half", Role::kHalfSender},
        {"stall", Role::kStaller},
        {"lie", Role::kLiar},
        {"fds253", Role::kFullDescriptors},
        {"deaf", Role::kDeaf},
};

bool parseUnsigned(const char* text, uint64_t max, uint64_t& out) {
    if (text == nullptr || *text < '0' || *text > '9') {
        return false;
    }
    errno = 0;
    char* end = nullptr;
    const unsigned long long value = std::strtoull(text, &end, 10);
    if (errno != 0 || *end != '\0' || value > max) {
        return false;
    }
    out = value;
    return true;
}

bool parseFaults(const std::string& list, uint32_t& roles) {
    roles = 0;
    std::stringstream items(list);
    std::string item;
    while (std::getline(items, item, ',')) {
        bool known = false;
        for (const auto& fault : kFaultNames) {
            if (item == fault.name) {
                roles |= 1u << static_cast<unsigned>(fault.role);
                known = true;
            }
        }
        if (!known) {
            return false;
        }
    }
    return roles != 0;
}

CommandLine refuse(const char* option, const char* value, const char* expected) {
    std::fprintf(stderr, "velacam_soak: %s %s: %s\n", option, value ? value : "(missing)",
                 expected);
    return CommandLine{std::nullopt, std::nullopt, 2};
}

CommandLine parseClient(int argc, char** argv) {
    uint64_t v[5];
    const uint64_t max[5] = {kRoleCount - 1, 1000000, UINT64_MAX, 65535, 65535};
    if (argc != 7) {
        return refuse("--client", nullptr, "expects ROLE SLOT SEED SOCKET_FD REPORT_FD");
    }
    for (int i = 0; i < 5; ++i) {
        if (!parseUnsigned(argv[2 + i], max[i], v[i])) {
            return refuse("--client", argv[2 + i], "not a number in range");
        }
    }
    ClientPlan plan{static_cast<Role>(v[0]), static_cast<uint32_t>(v[1]), v[2],
                    static_cast<int>(v[3]), static_cast<int>(v[4])};
    return CommandLine{std::nullopt, plan, 0};
}

}  // namespace

CommandLine parseCommandLine(int argc, char** argv) {
    if (argc >= 2 && std::strcmp(argv[1], "--client") == 0) {
        return parseClient(argc, argv);
    }
    SoakOptions options;
    for (const auto& fault : kFaultNames) {
        options.roles |= 1u << static_cast<unsigned>(fault.role);
    }
    bool haveSeconds = false;
    for (int i = 1; i < argc; ++i) {
        const char* argument = argv[i];
        uint64_t value = 0;
        if (std::strcmp(argument, "-h") == 0 || std::strcmp(argument, "--help") == 0) {
            std::fputs(kUsage, stdout);
            return CommandLine{};
        }
        if (std::strcmp(argument, "--seed") == 0) {
            if (!parseUnsigned(i + 1 < argc ? argv[i + 1] : nullptr, UINT64_MAX, value)) {
                return refuse("--seed", i + 1 < argc ? argv[i + 1] : nullptr,
                              "expects a number from 0 to 2^64-1");
            }
            options.seed = value;
            options.seedGiven = true;
            ++i;
        } else if (std::strcmp(argument, "--faults") == 0) {
            if (i + 1 >= argc || !parseFaults(argv[i + 1], options.roles)) {
                return refuse("--faults", i + 1 < argc ? argv[i + 1] : nullptr,
                              "expects a comma-separated list of kill, stop, half, stall, "
                              "lie, fds253, deaf");
            }
            ++i;
        } else if (argument[0] == '-') {
            return refuse("option", argument, "unknown (see --help)");
        } else if (!haveSeconds) {
            if (!parseUnsigned(argument, 86400, value) || value == 0) {
                return refuse("SECONDS", argument, "expects a number from 1 to 86400");
            }
            options.seconds = static_cast<unsigned>(value);
            haveSeconds = true;
        } else {
            return refuse("argument", argument, "unexpected (one SECONDS only)");
        }
    }
    if (!haveSeconds) {
        std::fputs(kUsage, stderr);
        return CommandLine{std::nullopt, std::nullopt, 2};
    }
    return CommandLine{options, std::nullopt, 0};
}

std::vector<std::string> clientArguments(const ClientPlan& plan) {
    return {"--client",
            std::to_string(static_cast<unsigned>(plan.role)),
            std::to_string(plan.slot),
            std::to_string(plan.seed),
            std::to_string(plan.socketFd),
            std::to_string(plan.reportFd)};
}

}  // namespace velacam::soak
