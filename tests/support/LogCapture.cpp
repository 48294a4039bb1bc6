#include "support/LogCapture.h"

namespace velacam::test {

using Kestrel::Utils::ULog::ULogger;

LogCapture::LogCapture(uint32_t mode)
    : mPrevious(ULogger::sULogger),
      mPreviousMode(ULogger::sMode),
      mPreviousDetails(ULogger::sDetailsLevel),
      mPreviousMask(ULogger::sNormalDetailsMask) {
    ULogger::sULogger = this;
    ULogger::sMode = mode;
    ULogger::sDetailsLevel = 5;
    ULogger::sNormalDetailsMask = 0xFFFFFFFFu;
}

LogCapture::~LogCapture() {
    ULogger::sULogger = mPrevious;
    ULogger::sMode = mPreviousMode;
    ULogger::sDetailsLevel = mPreviousDetails;
    ULogger::sNormalDetailsMask = mPreviousMask;
}

void LogCapture::record(uint32_t moduleId, const char* tag, uint32_t level, const char* text,
                        int length) {
    std::lock_guard<std::mutex> lock(mLock);
    mLines.push_back(LogLine{moduleId, tag, level, text, length});
    mChanged.notify_all();
}

std::vector<LogLine> LogCapture::lines() const {
    std::lock_guard<std::mutex> lock(mLock);
    return mLines;
}

size_t LogCapture::count(const std::string& text) const {
    std::lock_guard<std::mutex> lock(mLock);
    size_t n = 0;
    for (const LogLine& line : mLines) {
        n += line.text == text ? 1 : 0;
    }
    return n;
}

size_t LogCapture::countContainingLocked(const std::string& part) const {
    size_t n = 0;
    for (const LogLine& line : mLines) {
        n += line.text.find(part) != std::string::npos ? 1 : 0;
    }
    return n;
}

size_t LogCapture::countContaining(const std::string& part) const {
    std::lock_guard<std::mutex> lock(mLock);
    return countContainingLocked(part);
}

uint32_t LogCapture::levelOf(const std::string& text) const {
    std::lock_guard<std::mutex> lock(mLock);
    for (const LogLine& line : mLines) {
        if (line.text == text) {
            return line.level;
        }
    }
    return 0;
}

bool LogCapture::waitFor(const std::string& part, size_t times,
                         std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(mLock);
    return mChanged.wait_for(lock, timeout, [&] { return countContainingLocked(part) >= times; });
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(mLock);
    mLines.clear();
}

}  // namespace velacam::test
