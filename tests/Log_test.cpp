// Lines from Message (core module) and CountingSemaphore (sync module). CTest
// runs this suite with the debug property set, and the gate without.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <ipc/CountingSemaphore.h>
#include <ipc/Message.h>
#include <ipc/MessageHandler.h>
#include <ipc/utils/Log.h>
#include <ulog/ULogger.h>
#include <unistd.h>

#include <cstdlib>
#include <regex>
#include <string>
#include <tuple>
#include <vector>

#include "support/LogCapture.h"

namespace {

using namespace Kestrel::ipc;
using namespace Kestrel::ipc::utils;
using namespace velacam::test;
using Kestrel::Utils::ULog::ULogger;

// Logs "[Payload] data_offset(3)" (among other debug lines) from ipc/Message.
void logOneDebugLine() {
    Message message;
    Message::Payload payload;
    payload.data = {1, 2, 3};
    message.setPayload(payload);
    (void)message.payload();
}

// Logs the warning "no payload exists" from ipc/Message.
void logOneWarning() { (void)Message().payload(); }

TEST(LogGate, PropertyReadAtLoadGatesDebugLinesButNotWarnings) {
    const char* value = std::getenv("vendor.debug.ipc.framework.log");
    EXPECT_EQ(LogSetting::logLevel(), value != nullptr ? std::atoi(value) : 0);
    LogCapture capture;
    logOneDebugLine();
    EXPECT_EQ(capture.count("[Payload] data_offset(3)"), LogSetting::logLevel() >= 1 ? 1u : 0u);
    capture.clear();
    logOneWarning();
    ASSERT_EQ(capture.lines().size(), 1u);
    const LogLine line = capture.lines()[0];
    EXPECT_EQ(std::tie(line.text, line.level, line.tag, line.moduleId),
              std::make_tuple("no payload exists", 2u, "Message", 0x401034u));
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

// A site declared here behaves as one in the library's own sources.
constexpr LogSite kLogSite{"Thread", "ipc/utils/Thread", kLogModuleCore};

void run(int value) { IPC_LOGE("broken %d", value); }

int sideEffects = 0;
int countedArgument() { return ++sideEffects; }

TEST_F(LogSinks, DetailsLevelAndModuleMaskGateLinesBeforeTheirArgumentsAreEvaluated) {
    ULogger::sDetailsLevel = 4;
    logOneDebugLine();
    IPC_LOGD("[%s] %d", __func__, countedArgument());
    EXPECT_EQ(sideEffects, 0);
    EXPECT_TRUE(capture.lines().empty());
    ULogger::sDetailsLevel = 5;
    IPC_LOGD("[%s] %d", __func__, countedArgument());
    EXPECT_EQ(sideEffects, 1);
    EXPECT_EQ(capture.lines().back().level, 5u);

    const std::pair<uint32_t, size_t> expected[] = {{1, 0}, {2, 1}, {3, 2}};
    for (const auto& [level, lines] : expected) {
        capture.clear();
        ULogger::sDetailsLevel = level;
        logOneWarning();
        IPC_LOGI("an info line");
        EXPECT_EQ(capture.lines().size(), lines) << "details level " << level;
    }

    ULogger::sDetailsLevel = 5;
    const auto debugLines = [this](uint32_t mask) {
        capture.clear();
        ULogger::sNormalDetailsMask = mask;
        logOneDebugLine();
        CountingSemaphore(1).release(1);
        return std::make_pair(capture.count("[Payload] data_offset(3)"),
                              capture.countContaining("[release] before releasing!"));
    };
    EXPECT_EQ(debugLines(0x401000), std::make_pair(size_t{1}, size_t{0}));
    EXPECT_EQ(debugLines(0x101000), std::make_pair(size_t{0}, size_t{1}));
    EXPECT_EQ(debugLines(0x400000), std::make_pair(size_t{0}, size_t{0}));  // a bit missing
}

TEST_F(LogSinks, ModeSelectsTheSinksWhichFrameTheirLinesAndTruncateLongOnes) {
    for (uint32_t mode : {0u, 1u, 2u, 8u}) {
        capture.clear();
        ULogger::sMode = mode;
        testing::internal::CaptureStderr();
        logOneWarning();
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(err.find("no payload exists") != std::string::npos, mode == 1) << mode;
        EXPECT_EQ(capture.count("no payload exists"), mode >= 2 ? 1u : 0u) << mode;
    }

    ULogger::sMode = 3;
    testing::internal::CaptureStderr();
    logOneDebugLine();
    std::string err = testing::internal::GetCapturedStderr();
    // "%s[%s] %s:%d %s() %s": prefix "D ", tag, file, line, function, message.
    EXPECT_NE(err.find("D [Message] ipc/Message:"), std::string::npos) << err;
    EXPECT_NE(err.find(" Payload() [Payload] data_offset(3)\n"), std::string::npos) << err;

    capture.clear();
    testing::internal::CaptureStderr();
    run(7);
    err = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(
            std::regex_match(err, std::regex("E \\[Thread\\] ipc/utils/Thread:([0-9]+) run\\(\\) "
                                             "broken 7 \\(run\\)\\{#\\1:ipc/utils/Thread\\}\n")))
            << err;
    EXPECT_EQ(capture.levelOf("broken 7"), 1u);  // no frame, no suffix

    capture.clear();  // longer than the buffer
    ULogger::sMode = 2;
    const std::string longText(2000, 'x');
    logging::record(kLogSite, logging::kWarning, "%s", longText.c_str());
    ASSERT_EQ(capture.lines().size(), 1u);
    EXPECT_EQ(capture.lines()[0].text, std::string(1023, 'x'));
    EXPECT_EQ(capture.lines()[0].length, 2000);
}

TEST_F(LogSinks, DefaultHandlerLogsThePayloadItReadsThenEachClose) {
    ULogger::sDetailsLevel = 5;
    const int a = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    const int b = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    Message message;
    Message::Payload payload;
    payload.data = {1, 2};
    payload.fds = {a, b};
    message.setPayload(payload);
    capture.clear();
    MessageHandler().handleMessage(message);
    std::vector<std::string> texts;
    for (const LogLine& line : capture.lines()) {
        texts.push_back(line.text);
    }
    EXPECT_EQ(texts, (std::vector<std::string>{
                             "[payload] num_data(2) num_fds(2)",
                             "[Payload] data_offset(2)",
                             "[Payload] fds_offset(8)",
                             "[operator()] close fd(" + std::to_string(a) + ")",
                             "[operator()] close fd(" + std::to_string(b) + ")",
                     }));
    EXPECT_EQ(::fcntl(a, F_GETFD), -1);
    EXPECT_EQ(::fcntl(b, F_GETFD), -1);

    capture.clear();  // nothing carried: the warning, and nothing closed
    MessageHandler().handleMessage(*std::make_unique<Message>());
    ASSERT_EQ(capture.lines().size(), 1u);
    EXPECT_EQ(capture.lines()[0].text, "no payload exists");
}

// Shows on standard error the fatal path's order: record, flush, assertion.
class EchoingLogger : public ULogger {
  public:
    void record(uint32_t, const char*, uint32_t level, const char* text, int) override {
        fprintf(stderr, "recorded(%u): %s\n", level, text);
    }
    void flush(int reason) override { fprintf(stderr, "flushed(%d)\n", reason); }
};

using LogFatalDeathTest = LogSinks;

TEST_F(LogFatalDeathTest, FatalCheckRecordsFlushesThenAbortsWithTheMessageAndItsOrigin) {
    ULogger::sMode = 0;  // no sink selected: the assertion still ends the process
    EXPECT_DEATH(Message().setHeader(std::vector<uint8_t>(23)),
                 "Message: the data size\\(23\\) is not the same as the header size\\(24\\) "
                 "\\(setHeader\\)\\{#[0-9]+:ipc/Message\\}");

    EchoingLogger echo;
    ULogger::sULogger = &echo;
    ULogger::sMode = 2;
    EXPECT_DEATH(Message().setHeader(std::vector<uint8_t>(25)),
                 "recorded\\(1\\): the data size\\(25\\) is not the same as the header "
                 "size\\(24\\)\nflushed\\(1\\)\nMessage: the data size");
    ULogger::sULogger = &capture;
}

}  // namespace
