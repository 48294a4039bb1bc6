#include "support/LogCapture.h"

#include <algorithm>

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
    return std::count_if(mLines.begin(), mLines.end(),
                         [&text](const LogLine& line) { return line.text == text; });
}

size_t LogCapture::countContainingLocked(const std::string& part) const {
    return std::count_if(mLines.begin(), mLines.end(), [&part](const LogLine& line) {
        return line.text.find(part) != std::string::npos;
    });
}

size_t LogCapture::countContaining(const std::string& part) const {
    std::lock_guard<std::mutex> lock(mLock);
    return countContainingLocked(part);
}

uint32_t LogCapture::levelOf(const std::string& text) const {
    std::lock_guard<std::mutex> lock(mLock);
    const auto found = std::find_if(mLines.begin(), mLines.end(),
                                    [&text](const LogLine& line) { return line.text == text; });
    return found == mLines.end() ? 0 : found->level;
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
