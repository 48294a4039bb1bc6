// The soak's command line. The public form is
//   velacam_soak SECONDS [--seed N] [--faults LIST]
// and the soak starts its clients as
//   velacam_soak --client ROLE SLOT SEED SOCKET_FD REPORT_FD
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "ClientPlan.h"

namespace velacam::soak {

struct SoakOptions {
    unsigned seconds = 0;
    uint64_t seed = 0;
    bool seedGiven = false;
    uint32_t roles = 0;  // bit per Role a misbehaving slot may take
};

// What the command line asks for: a soak, a client's part, or nothing (help
// printed, or a refusal printed naming the option; `exitStatus` then says
// how to leave).
struct CommandLine {
    std::optional<SoakOptions> soak;
    std::optional<ClientPlan> client;
    int exitStatus = 0;
};

CommandLine parseCommandLine(int argc, char** argv);

// The arguments that make a started copy of this program play `plan`.
std::vector<std::string> clientArguments(const ClientPlan& plan);

}  // namespace velacam::soak
