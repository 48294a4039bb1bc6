// Test helper: captures the library's lines until destroyed. Create it before
// the threads whose lines a test checks: the ULogger statics are plain.
#pragma once

#include <ulog/ULogger.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace velacam::test {

struct LogLine {
    uint32_t moduleId;
    std::string tag;
    uint32_t level;  // 1 error, 2 warning, 3 info, 5 debug
    std::string text;
    int length;
};

class LogCapture : public Kestrel::Utils::ULog::ULogger {
  public:
    explicit LogCapture(uint32_t mode = 2);
    ~LogCapture() override;
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    void record(uint32_t moduleId, const char* tag, uint32_t level, const char* text,
                int length) override;

    std::vector<LogLine> lines() const;
    size_t count(const std::string& text) const;  // lines whose text is `text`
    size_t countContaining(const std::string& part) const;
    // The level of the first line whose text is `text`, 0 when there is none.
    uint32_t levelOf(const std::string& text) const;
    // Waits until at least `times` lines contain `part`; false on time-out.
    bool waitFor(const std::string& part, size_t times = 1,
                 std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
    void clear();

  private:
    size_t countContainingLocked(const std::string& part) const;

    mutable std::mutex mLock;
    mutable std::condition_variable mChanged;
    std::vector<LogLine> mLines;  // guarded by mLock
    ULogger* mPrevious;
    uint32_t mPreviousMode;
    uint32_t mPreviousDetails;
    uint32_t mPreviousMask;
};

}  // namespace velacam::test
