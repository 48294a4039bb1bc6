// Checks of captured log lines shared by the transport and poller suites.
#pragma once

#include <gtest/gtest.h>
#include <ipc/utils/Log.h>

#include <initializer_list>
#include <string>

#include "support/LogCapture.h"

namespace velacam::test {

// True when the library formats its debug lines (CTest runs every suite so).
inline bool debugLogged() { return Kestrel::ipc::utils::LogSetting::logLevel() >= 1; }

// Expects each of `texts` captured exactly once.
inline void expectEachOnce(const LogCapture& capture, std::initializer_list<std::string> texts) {
    for (const std::string& text : texts) {
        EXPECT_EQ(capture.count(text), 1u) << text;
    }
}

// The same for debug lines, which exist only while debug logging is on.
inline void expectDebugLinesOnce(const LogCapture& capture,
                                 std::initializer_list<std::string> texts) {
    if (debugLogged()) {
        expectEachOnce(capture, texts);
    }
}

// Base of fixtures whose checks read debug lines: each case is skipped while
// debug logging is off (CTest always switches it on). The capture is made
// before anything the derived fixture starts.
class DebugLogTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!debugLogged()) {
            GTEST_SKIP() << "needs the debug property";
        }
    }

    LogCapture capture;
};

}  // namespace velacam::test
