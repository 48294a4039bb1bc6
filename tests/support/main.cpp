// Test main: the library's lines stay off standard error unless
// VELACAM_TEST_LOG_STDERR is set.
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
