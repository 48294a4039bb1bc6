#include <properties/Properties.h>
#include <ulog/ULogger.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

namespace Kestrel::Utils::ULog {

namespace {

// The host's default logger: keeps the last lines in a small ring so that a
// debugger or a core dump shows what happened just before a failure.
class RecentLinesLogger : public ULogger {
  public:
    void record(uint32_t /*moduleId*/, const char* tag, uint32_t level, const char* text,
                int /*length*/) override {
        std::lock_guard<std::mutex> lock(mLock);
        mLines[mNext] = std::string(tag) + "/" + std::to_string(level) + ": " + text;
        mNext = (mNext + 1) % mLines.size();
    }

  private:
    std::mutex mLock;
    std::array<std::string, 64> mLines;  // guarded by mLock
    size_t mNext = 0;                    // guarded by mLock
};

RecentLinesLogger sRecentLines;

constexpr const char* kLevelVariable = "VELACAM_LOG_LEVEL";

// The camera stack's debug property, read as the library reads it: a value
// of 1 or more asks for debug lines.
bool debugPropertySet() {
    return Kestrel::Utils::Properties::property_get_int32("vendor.debug.ipc.framework.log", 0) >= 1;
}

// Reads kLevelVariable: unset or empty means errors only, or every level
// when the debug property asks for debug lines (so that one variable turns
// them on); otherwise exactly
// one digit from 1 to 5 (4 passes what 3 does). Anything else is
// reported once on standard error and leaves errors only, so that a typing
// mistake is seen instead of silently opening or closing the gate.
uint32_t detailsLevelFromEnvironment() {
    constexpr uint32_t kErrorsOnly = 1;
    constexpr uint32_t kEverything = 5;
    const char* value = std::getenv(kLevelVariable);
    if (value == nullptr || value[0] == '\0') {
        return debugPropertySet() ? kEverything : kErrorsOnly;
    }
    if (std::strlen(value) == 1 && value[0] >= '1' && value[0] <= '5') {
        return static_cast<uint32_t>(value[0] - '0');
    }
    std::fprintf(stderr,
                 "%s=\"%s\" ignored: expected 1 (errors), 2 (warnings), 3 (info) or 5 "
                 "(debug); showing errors only\n",
                 kLevelVariable, value);
    return kErrorsOnly;
}

}  // namespace

ULogger::~ULogger() = default;

void ULogger::record(uint32_t, const char*, uint32_t, const char*, int) {}

void ULogger::flush(int /*reason*/) { std::fflush(stderr); }

uint32_t ULogger::sMode = 1;
uint32_t ULogger::sDetailsLevel = 1;  // errors only: a correct run is quiet
uint32_t ULogger::sNormalDetailsMask = 0xFFFFFFFFu;
ULogger* ULogger::sULogger = &sRecentLines;

namespace {

// Runs while this library is loaded, before the libraries that log through it
// are initialised; until then sDetailsLevel holds its constant default.
[[maybe_unused]] const bool sDetailsLevelRead = [] {
    ULogger::sDetailsLevel = detailsLevelFromEnvironment();
    return true;
}();

}  // namespace

}  // namespace Kestrel::Utils::ULog
