// The command-line navigator: its prompt line on standard output and its wait
// for one character on standard input. It runs in a forked child whose
// standard input and output are pipes held by the test.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <ipc/utils/CommandLineUtils.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <iostream>
#include <string>

#include "support/Descriptors.h"
#include "support/Waiting.h"

namespace {

using velacam::test::Watchdog;
using namespace std::chrono_literals;

class NavigatorTest : public ::testing::Test {
  protected:
    // Starts a child that calls navigator(message) with its standard input
    // and output on pipes, then exits with the next character it reads (or
    // 200 at end of input), which shows how much the navigator consumed.
    void startChild(const std::string& message) {
        int input[2];
        int output[2];
        ASSERT_EQ(pipe2(input, O_CLOEXEC), 0);
        ASSERT_EQ(pipe2(output, O_CLOEXEC), 0);
        std::cout.flush();
        std::fflush(nullptr);
        mPid = fork();
        ASSERT_NE(mPid, -1);
        if (mPid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);  // never outlive a failed test
            dup2(input[0], STDIN_FILENO);
            dup2(output[1], STDOUT_FILENO);
            for (int fd : {input[0], input[1], output[0], output[1]}) {
                close(fd);
            }
            Kestrel::CommandLineUtils::navigator(message);
            const int next = std::getchar();
            _exit(next == EOF ? 200 : next);
        }
        close(input[0]);
        close(output[1]);
        mInput = input[1];
        mOutput = output[0];
    }

    // Reads the child's standard output up to and including the first newline.
    std::string readLine() {
        Watchdog watchdog("the prompt line", 20s);
        std::string line;
        char c;
        while (read(mOutput, &c, 1) == 1) {
            line += c;
            if (c == '\n') {
                break;
            }
        }
        return line;
    }

    int reap() {
        Watchdog watchdog("waitpid", 20s);
        int status = 0;
        while (waitpid(mPid, &status, 0) == -1 && errno == EINTR) {
        }
        return status;
    }

    void TearDown() override {
        if (mInput >= 0) {
            close(mInput);
        }
        if (mOutput >= 0) {
            close(mOutput);
        }
        mLeaks.check();
    }

    velacam::test::DescriptorLeakCheck mLeaks;
    pid_t mPid = -1;
    int mInput = -1;
    int mOutput = -1;
};

TEST_F(NavigatorTest, PrintsThePromptThenConsumesExactlyOneCharacter) {
    startChild("continue");
    EXPECT_EQ(readLine(),
              "[----------] PID(" + std::to_string(mPid) + ") Press ENTER to continue...\n");
    // The prompt is out and the child waits for input.
    int status = 0;
    EXPECT_EQ(waitpid(mPid, &status, WNOHANG), 0);

    ASSERT_EQ(write(mInput, "\nx", 2), 2);
    status = reap();
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 'x');
}

TEST_F(NavigatorTest, ReturnsAtEndOfInput) {
    startChild("attach a debugger");
    EXPECT_EQ(readLine(), "[----------] PID(" + std::to_string(mPid) +
                                  ") Press ENTER to attach a debugger...\n");
    close(mInput);
    mInput = -1;
    const int status = reap();
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 200);
}

}  // namespace
