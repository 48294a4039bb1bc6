// The demo's command line, read strictly before anything starts.
//
// Every number is plain decimal digits (no sign, no spaces, no suffix) within
// the range its option documents; a bare option, an unknown one, or a value
// out of range is refused with a message naming the option and the value.
#pragma once

#include <optional>
#include <string>

#include "CameraSide.h"

namespace demo {

// Ranges of the options; the usage text quotes them.
inline constexpr unsigned long long kMaxRequests = 1000000000ULL;  // fits a 32-bit id
inline constexpr unsigned long long kMaxFdsPerRequest = 253;       // SCM_RIGHTS limit
inline constexpr unsigned long long kMaxBufferBytes = 64ULL << 20;
inline constexpr unsigned long long kMaxBytesPerRequest = 256ULL << 20;

struct DemoCommandLine {
    DemoOptions options;
    // Set in the algorithm process, which the camera starts with
    // "--algorithm-fd N" as its only option.
    std::optional<int> algorithmFd;
    bool helpWanted = false;  // -h or --help: print the usage, run nothing
    bool verbose = false;     // --verbose: the library's lines of every level
};

// Reads argv[1..argc); on a refusal returns nullopt and sets `error` to a
// one-line message without the program name.
std::optional<DemoCommandLine> parseDemoCommandLine(int argc, const char* const* argv,
                                                    std::string* error);

// The usage text, one option per line.
const char* demoUsage();

}  // namespace demo
