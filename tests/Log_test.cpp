// The log convention: gates, both sinks, the frame, truncation, the fatal path.
// The library's own sites are exercised through Message, whose lines are known.
#include <gtest/gtest.h>
#include <ipc/Message.h>
#include <ipc/utils/Log.h>
#include <ulog/ULogger.h>

#include <cstdlib>
#include <regex>
#include <string>
#include <vector>

#include "support/LogCapture.h"

namespace {

using Kestrel::ipc::Message;
using Kestrel::ipc::utils::LogSetting;
using Kestrel::Utils::ULog::ULogger;
using velacam::test::LogCapture;

// The suite runs twice: with the property at 1 and with it unset.
int propertyInEnvironment() {
    const char* value = std::getenv("vendor.debug.ipc.framework.log");
    return value != nullptr ? std::atoi(value) : 0;
}

// A new message logs the debug line "[Payload] data_offset(3)" when a
// 3-byte payload is read back, and the warning "no payload exists" when none
// is set.
void logOneDebugLine() {
    Message message;
    Message::Payload payload;
    payload.data = {1, 2, 3};
    message.setPayload(payload);
    (void)message.payload();
}

void logOneWarning() { (void)Message().payload(); }

TEST(LogGate, PropertyIsReadOnceAtLoad) {
    EXPECT_EQ(LogSetting::logLevel(), propertyInEnvironment());
}

TEST(LogGate, DebugLinesFollowTheProperty) {
    LogCapture capture;
    logOneDebugLine();
    EXPECT_EQ(capture.count("[Payload] data_offset(3)"), LogSetting::logLevel() >= 1 ? 1u : 0u);
}

TEST(LogGate, WarningsAndErrorsPassWhateverTheProperty) {
    LogCapture capture;
    logOneWarning();
    ASSERT_EQ(capture.count("no payload exists"), 1u);
    EXPECT_EQ(capture.lines()[0].level, 2u);
    EXPECT_EQ(capture.lines()[0].tag, "Message");
    EXPECT_EQ(capture.lines()[0].moduleId, 0x401034u);
}

class LogSinks : public ::testing::Test {
  protected:
    void SetUp() override {
        if (LogSetting::logLevel() < 1) {
            GTEST_SKIP() << "needs the debug property";
        }
    }
    LogCapture capture;
};

TEST_F(LogSinks, DetailsLevelGatesDebugInfoAndWarning) {
    ULogger::sDetailsLevel = 4;
    logOneDebugLine();
    EXPECT_EQ(capture.countContaining("data_offset"), 0u);
    ULogger::sDetailsLevel = 1;
    logOneWarning();
    EXPECT_EQ(capture.count("no payload exists"), 0u);
    ULogger::sDetailsLevel = 2;
    logOneWarning();
    EXPECT_EQ(capture.count("no payload exists"), 1u);
}

TEST_F(LogSinks, ModuleMaskGatesDebugLinesPerModule) {
    ULogger::sNormalDetailsMask = 0x101000;  // the synchronisation module only
    logOneDebugLine();
    EXPECT_EQ(capture.countContaining("data_offset"), 0u);
    ULogger::sNormalDetailsMask = 0x401000;
    logOneDebugLine();
    EXPECT_EQ(capture.countContaining("data_offset"), 1u);
    ULogger::sNormalDetailsMask = 0x400000;  // one bit of the mask missing
    logOneDebugLine();
    EXPECT_EQ(capture.countContaining("data_offset"), 1u);
}

TEST_F(LogSinks, ModeSelectsTheSinks) {
    for (uint32_t mode : {0u, 1u}) {
        ULogger::sMode = mode;
        testing::internal::CaptureStderr();
        logOneWarning();
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(capture.count("no payload exists"), 0u) << "mode " << mode;
        EXPECT_EQ(err.find("no payload exists") != std::string::npos, mode == 1) << mode;
    }
    for (uint32_t mode : {2u, 8u}) {
        capture.clear();
        ULogger::sMode = mode;
        testing::internal::CaptureStderr();
        logOneWarning();
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
        EXPECT_EQ(capture.count("no payload exists"), 1u) << "mode " << mode;
    }
}

TEST_F(LogSinks, DebugPrintFrameCarriesPrefixTagFileLineAndFunction) {
    ULogger::sMode = 1;
    testing::internal::CaptureStderr();
    logOneDebugLine();
    const std::string err = testing::internal::GetCapturedStderr();
    // "%s[%s] %s:%d %s() %s": prefix "D ", tag, file, line, function, message.
    EXPECT_NE(err.find("D [Message] ipc/Message:"), std::string::npos) << err;
    EXPECT_NE(err.find(" Payload() [Payload] data_offset(3)\n"), std::string::npos) << err;
}

// The library's macros are public; a site declared here behaves as one in the
// library's own sources.
constexpr Kestrel::ipc::utils::LogSite kLogSite{"Thread", "ipc/utils/Thread",
                                                Kestrel::ipc::utils::kLogModuleCore};

void run(int value) { IPC_LOGE("broken %d", value); }

int sideEffects = 0;
int countedArgument() { return ++sideEffects; }

TEST_F(LogSinks, ErrorLineEndsWithFunctionLineAndFile) {
    ULogger::sMode = 3;
    testing::internal::CaptureStderr();
    run(7);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(
            std::regex_match(err, std::regex("E \\[Thread\\] ipc/utils/Thread:([0-9]+) run\\(\\) "
                                             "broken 7 \\(run\\)\\{#\\1:ipc/utils/Thread\\}\n")))
            << err;
    ASSERT_EQ(capture.lines().size(), 1u);
    EXPECT_EQ(capture.lines()[0].text, "broken 7");  // no frame, no suffix
    EXPECT_EQ(capture.lines()[0].level, 1u);
}

TEST_F(LogSinks, SuppressedDebugSiteDoesNotEvaluateItsArguments) {
    ULogger::sDetailsLevel = 4;
    sideEffects = 0;
    IPC_LOGD("[%s] %d", __func__, countedArgument());
    EXPECT_EQ(sideEffects, 0);
    ULogger::sDetailsLevel = 5;
    IPC_LOGD("[%s] %d", __func__, countedArgument());
    EXPECT_EQ(sideEffects, 1);
    EXPECT_EQ(capture.lines().back().level, 5u);
}

TEST_F(LogSinks, LongMessageIsTruncatedWithTheUntruncatedLength) {
    const Kestrel::ipc::utils::LogSite site{"Test", "tests/Log_test", 0x401034};
    const std::string longText(2000, 'x');
    Kestrel::ipc::utils::logging::record(site, Kestrel::ipc::utils::logging::kWarning, "%s",
                                         longText.c_str());
    ASSERT_EQ(capture.lines().size(), 1u);
    EXPECT_EQ(capture.lines()[0].text, std::string(1023, 'x'));
    EXPECT_EQ(capture.lines()[0].length, 2000);
}

using LogFatalDeathTest = LogSinks;

TEST_F(LogFatalDeathTest, FatalCheckAbortsWithTheMessageAndItsOrigin) {
    ULogger::sMode = 0;  // no sink selected: the assertion still ends the process
    EXPECT_DEATH(Message().setHeader(std::vector<uint8_t>(23)),
                 "Message: the data size\\(23\\) is not the same as the header size\\(24\\) "
                 "\\(setHeader\\)\\{#[0-9]+:ipc/Message\\}");
}

// Writes what the fatal path records to standard error, so that the dying
// child's output shows the order: record, flush, assertion.
class EchoingLogger : public ULogger {
  public:
    void record(uint32_t, const char*, uint32_t level, const char* text, int) override {
        fprintf(stderr, "recorded(%u): %s\n", level, text);
    }
    void flush(int reason) override { fprintf(stderr, "flushed(%d)\n", reason); }
};

TEST_F(LogFatalDeathTest, FatalCheckRecordsAndFlushesTheUnifiedLoggerFirst) {
    EchoingLogger echo;
    ULogger::sULogger = &echo;
    ULogger::sMode = 2;
    EXPECT_DEATH(Message().setHeader(std::vector<uint8_t>(25)),
                 "recorded\\(1\\): the data size\\(25\\) is not the same as the header "
                 "size\\(24\\)\nflushed\\(1\\)\nMessage: the data size");
    ULogger::sULogger = &capture;
}

}  // namespace
