#include "DemoCommandLine.h"

#include <cstring>
#include <string>

namespace demo {

namespace {

// Digits only, no overflow, within [low, high].
std::optional<unsigned long long> parseNumber(const char* text, unsigned long long low,
                                              unsigned long long high) {
    if (*text == '\0') {
        return std::nullopt;
    }
    unsigned long long value = 0;
    for (const char* c = text; *c != '\0'; ++c) {
        if (*c < '0' || *c > '9') {
            return std::nullopt;
        }
        const unsigned digit = static_cast<unsigned>(*c - '0');
        if (value > high / 10 || value * 10 + digit > high) {
            return std::nullopt;  // past `high`, checked before it could wrap around
        }
        value = value * 10 + digit;
    }
    if (value < low) {
        return std::nullopt;
    }
    return value;
}

std::string refusal(const std::string& option, const char* value, const std::string& expected) {
    return option + " \"" + value + "\" refused: expected " + expected;
}

std::string range(unsigned long long low, unsigned long long high) {
    return "a whole number from " + std::to_string(low) + " to " + std::to_string(high);
}

}  // namespace

const char* demoUsage() {
    return "usage: velacam_demo [--requests N] [--buffer-size BYTES] [--fds-per-request K]\n"
           "                    [--verbose] [--kill-algorithm-after N | --camera-dies-after N]\n"
           "                    [--trace FILE] [--stats]\n"
           "  --requests N               1 to 1000000000 (default 2000)\n"
           "  --buffer-size BYTES        a multiple of 4 from 4 to 67108864, 64 MiB (default "
           "4096)\n"
           "  --fds-per-request K        0 to 253 buffers per request (default 1); together at\n"
           "                             most 268435456 bytes, 256 MiB, per request\n"
           "  --kill-algorithm-after N   0 to requests - 1\n"
           "  --camera-dies-after N      0 to requests - 1\n"
           "  --verbose                  the library's warning, info and debug lines on\n"
           "                             standard error\n"
           "  --trace FILE               writes a trace of both processes to FILE (JSON, for\n"
           "                             ui.perfetto.dev or chrome://tracing)\n"
           "  --stats                    prints both processes' counters at the end\n";
}

std::optional<DemoCommandLine> parseDemoCommandLine(int argc, const char* const* argv,
                                                    std::string* error) {
    DemoCommandLine line;
    DemoOptions& options = line.options;
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        unsigned long long high = 0;
        unsigned long long low = 0;
        if (option == "--requests") {
            low = 1;
            high = kMaxRequests;
        } else if (option == "--buffer-size") {
            low = 4;
            high = kMaxBufferBytes;
        } else if (option == "--fds-per-request") {
            high = kMaxFdsPerRequest;
        } else if (option == "--kill-algorithm-after" || option == "--camera-dies-after") {
            high = kMaxRequests - 1;  // checked against --requests below
        } else if (option == "--verbose") {
            line.verbose = true;
            continue;
        } else if (option == "--stats") {
            options.observation.stats = true;
            continue;
        } else if (option == "--trace") {
            if (i + 1 == argc || argv[i + 1][0] == '\0') {
                *error = "--trace needs a file name";
                return std::nullopt;
            }
            options.observation.traceFile = argv[++i];
            continue;
        } else if (option == "-h" || option == "--help") {
            line.helpWanted = true;
            return line;
        } else if (option == "--algorithm-fd" && argc == 3) {
            high = 1 << 20;
        } else {
            *error = "unknown option \"" + option + "\"";
            return std::nullopt;
        }
        if (i + 1 == argc) {
            *error = option + " needs a value";
            return std::nullopt;
        }
        const char* text = argv[++i];
        const std::optional<unsigned long long> number = parseNumber(text, low, high);
        if (!number || (option == "--buffer-size" && *number % 4 != 0)) {
            *error = refusal(option, text,
                             option == "--buffer-size"
                                     ? "a multiple of 4 from 4 to " + std::to_string(high)
                                     : range(low, high));
            return std::nullopt;
        }
        const auto value = static_cast<size_t>(*number);
        if (option == "--requests") {
            options.requests = value;
        } else if (option == "--buffer-size") {
            options.bufferBytes = value;
        } else if (option == "--fds-per-request") {
            options.fdsPerRequest = value;
        } else if (option == "--kill-algorithm-after") {
            options.killAlgorithmAfter = value;
        } else if (option == "--camera-dies-after") {
            options.cameraDiesAfter = value;
        } else {
            line.algorithmFd = static_cast<int>(value);
        }
    }
    if (options.bufferBytes * options.fdsPerRequest > kMaxBytesPerRequest) {
        *error = "--buffer-size " + std::to_string(options.bufferBytes) +
                 " with --fds-per-request " + std::to_string(options.fdsPerRequest) +
                 " refused: at most " + std::to_string(kMaxBytesPerRequest) +
                 " bytes of buffers per request";
        return std::nullopt;
    }
    if (options.killAlgorithmAfter && options.cameraDiesAfter) {
        *error = "--kill-algorithm-after and --camera-dies-after exclude each other";
        return std::nullopt;
    }
    for (const auto& [name, death] :
         {std::make_pair("--kill-algorithm-after", options.killAlgorithmAfter),
          std::make_pair("--camera-dies-after", options.cameraDiesAfter)}) {
        if (death && *death >= options.requests) {
            *error = std::string(name) + " \"" + std::to_string(*death) +
                     "\" refused: expected a number below --requests (" +
                     std::to_string(options.requests) + ")";
            return std::nullopt;
        }
    }
    return line;
}

}  // namespace demo
