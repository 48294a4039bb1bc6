// The command-line navigator: its prompt line on standard output and its wait
// for one character on standard input, in a forked child whose standard input
// and output are pipes held by the test.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <ipc/utils/CommandLineUtils.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <string>

#include "support/Descriptors.h"
#include "support/RawPeer.h"
#include "support/Waiting.h"

namespace {

using namespace velacam::test;

struct Child {
    pid_t pid;
    FileDescriptor input;  // the child's standard input
    std::string prompt;    // the first line of its standard output
};

// Starts a child that calls navigator(message) and then exits with the next
// character it reads (200 at end of input), which shows how much the
// navigator consumed.
Child startChild(const std::string& message) {
    int input[2];
    int output[2];
    EXPECT_EQ(pipe2(input, O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(output, O_CLOEXEC), 0);
    std::cout.flush();
    std::fflush(nullptr);
    const pid_t pid = forkPeer([&] {
        dup2(input[0], STDIN_FILENO);
        dup2(output[1], STDOUT_FILENO);
        for (int fd : {input[0], input[1], output[0], output[1]}) {
            close(fd);
        }
        Kestrel::CommandLineUtils::navigator(message);
        const int next = std::getchar();
        return next == EOF ? 200 : next;
    });
    close(input[0]);
    close(output[1]);
    const FileDescriptor out(output[0], 0);
    std::string prompt;
    Watchdog watchdog("the prompt line", 20s);
    char c;
    while (prompt.empty() || prompt.back() != '\n') {
        if (read(out.get(), &c, 1) != 1) {
            break;
        }
        prompt += c;
    }
    return {pid, FileDescriptor(input[1], 0), prompt};
}

TEST(NavigatorTest, PrintsThePromptThenConsumesOneCharacterOrReturnsAtEndOfInput) {
    DescriptorLeakCheck leaks;
    Child child = startChild("continue");
    EXPECT_EQ(child.prompt,
              "[----------] PID(" + std::to_string(child.pid) + ") Press ENTER to continue...\n");
    int status = 0;
    EXPECT_EQ(waitpid(child.pid, &status, WNOHANG), 0);  // the prompt is out; it waits for input
    ASSERT_EQ(write(child.input.get(), "\nx", 2), 2);
    EXPECT_EQ(waitPeer(child.pid), 'x');

    child = startChild("attach a debugger");
    EXPECT_EQ(child.prompt, "[----------] PID(" + std::to_string(child.pid) +
                                    ") Press ENTER to attach a debugger...\n");
    child.input = FileDescriptor();  // end of input
    EXPECT_EQ(waitPeer(child.pid), 200);
    leaks.check();
}

}  // namespace
