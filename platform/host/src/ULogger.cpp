#include <ulog/ULogger.h>

#include <array>
#include <cstdio>
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

}  // namespace

ULogger::~ULogger() = default;

void ULogger::record(uint32_t, const char*, uint32_t, const char*, int) {}

void ULogger::flush(int /*reason*/) { std::fflush(stderr); }

uint32_t ULogger::sMode = 1;
uint32_t ULogger::sDetailsLevel = 5;
uint32_t ULogger::sNormalDetailsMask = 0xFFFFFFFFu;
ULogger* ULogger::sULogger = &sRecentLines;

}  // namespace Kestrel::Utils::ULog
