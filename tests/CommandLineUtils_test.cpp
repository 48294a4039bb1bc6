// The command-line navigator, in a child whose standard input and output are pipes.
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

// Checks the prompt; the child exits with the next character (200 at the end).
pid_t startChild(const std::string& message, FileDescriptor& input) {
    int in[2];
    int out[2];
    EXPECT_EQ(pipe2(in, O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(out, O_CLOEXEC), 0);
    std::cout.flush();
    std::fflush(nullptr);
    const pid_t pid = forkPeer([&] {
        dup2(in[0], STDIN_FILENO);
        dup2(out[1], STDOUT_FILENO);
        for (int fd : {in[0], in[1], out[0], out[1]}) {
            close(fd);  // or its own copy of the writing end would keep input from ending
        }
        Kestrel::CommandLineUtils::navigator(message);
        const int next = std::getchar();
        return next == EOF ? 200 : next;
    });
    close(in[0]);
    close(out[1]);
    input = FileDescriptor(in[1], 0);
    const FileDescriptor output(out[0], 0);
    std::string prompt;
    Watchdog watchdog("the prompt line", 20s);
    char c;
    while ((prompt.empty() || prompt.back() != '\n') && read(output.get(), &c, 1) == 1) {
        prompt += c;
    }
    EXPECT_EQ(prompt,
              "[----------] PID(" + std::to_string(pid) + ") Press ENTER to " + message + "...\n");
    return pid;
}

TEST(NavigatorTest, PrintsThePromptThenConsumesOneCharacterOrReturnsAtEndOfInput) {
    ScopedLeakCheck leaks;
    FileDescriptor input;
    pid_t pid = startChild("continue", input);
    EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), 0);  // the prompt is out; it waits for input
    ASSERT_EQ(write(input.get(), "\nx", 2), 2);
    EXPECT_EQ(waitPeer(pid), 'x');

    pid = startChild("attach a debugger", input);
    input = FileDescriptor();  // end of input
    EXPECT_EQ(waitPeer(pid), 200);
}

}  // namespace
