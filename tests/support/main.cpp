// Test main: keeps the library's lines off standard error (the default host
// sink) unless VELACAM_TEST_LOG_STDERR is set; suites that check lines install
// a LogCapture.
#include <gtest/gtest.h>
#include <ulog/ULogger.h>

#include <cstdlib>

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (std::getenv("VELACAM_TEST_LOG_STDERR") == nullptr) {
        Kestrel::Utils::ULog::ULogger::sMode = 0;
    }
    return RUN_ALL_TESTS();
}
