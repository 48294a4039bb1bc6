// Process: starting system programs as children, observing and terminating
// them, and closing inherited descriptors in a forked child. Children run the
// machine's own programs (/bin/sh, /bin/sleep, /bin/true), which also works
// when this suite runs under an emulator.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <ipc/utils/Log.h>
#include <ipc/utils/Process.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/Descriptors.h"
#include "support/LogCapture.h"
#include "support/Waiting.h"

namespace {

using Kestrel::ipc::utils::LogSetting;
using Kestrel::ipc::utils::Process;
using velacam::test::DescriptorLeakCheck;
using velacam::test::LogCapture;
using velacam::test::openDescriptors;
using velacam::test::Watchdog;
using namespace std::chrono_literals;

// Reaps `pid` and returns its wait status; a child that never ends fails the
// suite through the watchdog.
int reap(pid_t pid) {
    Watchdog watchdog("waitpid", 20s);
    int status = 0;
    while (waitpid(pid, &status, 0) == -1 && errno == EINTR) {
    }
    return status;
}

bool exitedWith(int status, int code) { return WIFEXITED(status) && WEXITSTATUS(status) == code; }

bool killedBy(int status, int signal) { return WIFSIGNALED(status) && WTERMSIG(status) == signal; }

bool debugOn() { return LogSetting::logLevel() >= 1; }

class ProcessTest : public ::testing::Test {
  protected:
    // Ends a child in which create() returned because exec failed, so that it
    // never runs the rest of the test.
    void endIfChild(const Process& started, int code) {
        if (getpid() != mParentPid) {
            _exit(started.pid() == -1 ? code : 126);
        }
    }

    void TearDown() override { mLeaks.check(); }

    const pid_t mParentPid = getpid();
    LogCapture mCapture;
    DescriptorLeakCheck mLeaks;
};

TEST_F(ProcessTest, CurrentNamesTheCallingProcessAndCopiesShareNoState) {
    EXPECT_EQ(Process().pid(), getpid());
    EXPECT_EQ(Process::current().pid(), getpid());
    EXPECT_EQ(Process(4321).pid(), 4321);
    EXPECT_TRUE(Process().children().empty());
}

TEST_F(ProcessTest, Create_RunsTheProgramUnderItsOwnNameWithTheFurtherArguments) {
    Process self;
    // With -c and no operand after the script, sh sees its own argv[0] as $0.
    Process named = self.create("/bin/sh", {"-c", "[ \"$0\" = /bin/sh ] && exit 3; exit 9"}, {});
    endIfChild(named, 127);
    // Operands after the script: $0 is "zero", then two positional ones.
    Process counted = self.create("/bin/sh", {"-c", "exit $#", "zero", "one", "two"}, {});
    endIfChild(counted, 127);

    ASSERT_GT(named.pid(), 0);
    ASSERT_GT(counted.pid(), 0);
    EXPECT_TRUE(named.children().empty());
    ASSERT_EQ(self.children().size(), 2u);
    EXPECT_EQ(self.children().front().pid(), named.pid());
    EXPECT_EQ(self.children().back().pid(), counted.pid());
    EXPECT_TRUE(exitedWith(reap(named.pid()), 3));
    EXPECT_TRUE(exitedWith(reap(counted.pid()), 2));
    if (debugOn()) {
        EXPECT_EQ(mCapture.count("[create] child process PID(" + std::to_string(named.pid()) +
                                 ") created"),
                  1u);
    }
    self.removeFromObservation(named.pid());
    self.removeFromObservation(counted.pid());

    // An empty argv runs the program with its own name only.
    Process alone = self.create("/bin/false", {}, {});
    endIfChild(alone, 127);
    EXPECT_TRUE(exitedWith(reap(alone.pid()), 1));
    self.removeFromObservation(alone.pid());
}

TEST_F(ProcessTest, Create_OfAMissingProgramReturnsMinusOneInTheChildWhichMustEndIt) {
    Process self;
    Process child = self.create("/nonexistent/velacam-program", {"first"}, {});
    if (getpid() != mParentPid) {
        // The child: exec failed and control came back here.
        bool expected = child.pid() == -1 && child.children().empty() &&
                        mCapture.count(
                                "execute a file (/nonexistent/velacam-program) "
                                "failed(No such file or directory)") == 1;
        if (debugOn()) {
            expected =
                    expected &&
                    mCapture.count("[create] execvp filename(/nonexistent/velacam-program) +") ==
                            1 &&
                    mCapture.count("[create] execvp argv(first) +") == 1 &&
                    mCapture.count("[create] execvp filename(/nonexistent/velacam-program) -") == 1;
        }
        _exit(expected ? 42 : 43);
    }
    ASSERT_GT(child.pid(), 0);
    ASSERT_EQ(self.children().size(), 1u);
    EXPECT_EQ(self.children().front().pid(), child.pid());
    EXPECT_TRUE(exitedWith(reap(child.pid()), 42));
    self.removeFromObservation(child.pid());
}

TEST_F(ProcessTest, Terminate_SendsSigtermAndKeepsTheChildObserved) {
    Process self;
    Process sleeper = self.create("/bin/sleep", {"30"}, {});
    endIfChild(sleeper, 127);
    ASSERT_GT(sleeper.pid(), 0);

    EXPECT_TRUE(sleeper.terminate());
    EXPECT_TRUE(killedBy(reap(sleeper.pid()), SIGTERM));
    ASSERT_EQ(self.children().size(), 1u);
    if (debugOn()) {
        EXPECT_EQ(mCapture.count("[terminate] Pid(" + std::to_string(sleeper.pid()) + ")"), 1u);
    }

    self.removeFromObservation(sleeper.pid());
    EXPECT_TRUE(self.children().empty());
    if (debugOn()) {
        EXPECT_EQ(mCapture.count("[operator()] child process PID(" + std::to_string(sleeper.pid()) +
                                 ") removed"),
                  1u);
    }
}

TEST_F(ProcessTest, Terminate_FailsForANegativeIdAndForAChildAlreadyReaped) {
    EXPECT_FALSE(Process(-1).terminate());
    ASSERT_EQ(mCapture.count("invalid process ID (-1)"), 1u);
    EXPECT_EQ(mCapture.lines().back().level, 1u);
    EXPECT_EQ(mCapture.lines().back().tag, "Process");

    Process self;
    Process gone = self.create("/bin/true", {}, {});
    endIfChild(gone, 127);
    ASSERT_TRUE(exitedWith(reap(gone.pid()), 0));
    EXPECT_FALSE(gone.terminate());
    EXPECT_EQ(mCapture.count("failed to kill the process (No such process)"), 1u);
    self.removeFromObservation(gone.pid());
}

TEST_F(ProcessTest, TerminateAll_TerminatesAndForgetsEveryChild) {
    Process self;
    Process first = self.create("/bin/sleep", {"30"}, {});
    endIfChild(first, 127);
    Process second = self.create("/bin/sleep", {"30"}, {});
    endIfChild(second, 127);

    EXPECT_TRUE(self.terminateAllChildProcess());
    EXPECT_TRUE(self.children().empty());
    EXPECT_TRUE(killedBy(reap(first.pid()), SIGTERM));
    EXPECT_TRUE(killedBy(reap(second.pid()), SIGTERM));
}

TEST_F(ProcessTest, TerminateAll_KeepsAFailedChildAndForgetsTheNextOneUnterminated) {
    Process self;
    Process gone = self.create("/bin/true", {}, {});
    endIfChild(gone, 127);
    ASSERT_TRUE(exitedWith(reap(gone.pid()), 0));  // its terminate() will fail
    Process skipped = self.create("/bin/sleep", {"30"}, {});
    endIfChild(skipped, 127);
    Process last = self.create("/bin/sleep", {"30"}, {});
    endIfChild(last, 127);

    EXPECT_FALSE(self.terminateAllChildProcess());
    ASSERT_EQ(self.children().size(), 1u);
    EXPECT_EQ(self.children().front().pid(), gone.pid());
    EXPECT_TRUE(killedBy(reap(last.pid()), SIGTERM));
    // The child after the failed one was dropped from observation while it
    // still runs.
    int status = 0;
    EXPECT_EQ(waitpid(skipped.pid(), &status, WNOHANG), 0);
    ASSERT_EQ(kill(skipped.pid(), SIGKILL), 0);
    EXPECT_TRUE(killedBy(reap(skipped.pid()), SIGKILL));
}

TEST_F(ProcessTest, RemoveFromObservation_IgnoresAnUnknownIdSilently) {
    Process self;
    Process sleeper = self.create("/bin/sleep", {"30"}, {});
    endIfChild(sleeper, 127);
    mCapture.clear();

    self.removeFromObservation(sleeper.pid() + 1);
    EXPECT_EQ(self.children().size(), 1u);
    EXPECT_TRUE(mCapture.lines().empty());

    Process copy = self;
    EXPECT_EQ(copy.children().size(), 1u);
    ASSERT_TRUE(copy.terminateAllChildProcess());
    EXPECT_EQ(self.children().size(), 1u);  // the copy had its own list
    EXPECT_TRUE(killedBy(reap(sleeper.pid()), SIGTERM));
}

// closeOpenFileDescriptors runs in a forked child, which reports what is left
// open through a pipe it was told to keep, then _exits.
class CloseOpenFileDescriptorsTest : public ProcessTest {};

TEST_F(CloseOpenFileDescriptorsTest, KeepsExactlyTheListedDescriptorsAndZero) {
    int report[2];
    ASSERT_EQ(pipe2(report, O_CLOEXEC), 0);
    const int extra = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const int keep = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(extra, 0);
    ASSERT_GE(keep, 0);
    const std::set<int> before = openDescriptors();

    const pid_t pid = fork();
    ASSERT_NE(pid, -1);
    if (pid == 0) {
        mCapture.clear();
        // Unsorted on purpose, with a number that is not open at all.
        Process::closeOpenFileDescriptors({report[1], 2, keep, 1, 999});
        std::ostringstream text;
        for (int fd : openDescriptors()) {
            text << fd << ' ';
        }
        const auto closeLine = [](int fd, const char* edge) {
            return "[closeOpenFileDescriptors] close fd(" + std::to_string(fd) + ") " + edge;
        };
        text << "| " << mCapture.count("no conversion occurs (3-1)") << ' '
             << mCapture.count("strtoul: no valid conversion") << ' '
             << (mCapture.count(closeLine(extra, "+")) == 1 &&
                 mCapture.count(closeLine(extra, "-")) == 1)
             << ' ' << mCapture.count(closeLine(keep, "+"));
        const std::string out = text.str();
        const bool written =
                write(report[1], out.data(), out.size()) == static_cast<ssize_t>(out.size());
        _exit(written ? 0 : 1);
    }
    close(report[1]);
    std::string out;
    {
        Watchdog watchdog("report of the child", 20s);
        char buffer[256];
        ssize_t n;
        while ((n = read(report[0], buffer, sizeof(buffer))) > 0) {
            out.append(buffer, static_cast<size_t>(n));
        }
    }
    close(report[0]);
    close(extra);
    close(keep);
    ASSERT_TRUE(exitedWith(reap(pid), 0));

    std::istringstream in(out);
    std::set<int> open;
    std::string word;
    while (in >> word && word != "|") {
        open.insert(std::stoi(word));
    }
    size_t noConversion = 0, strtoulZero = 0, closedExtraLogged = 0, closedKeptLogged = 0;
    in >> noConversion >> strtoulZero >> closedExtraLogged >> closedKeptLogged;

    std::set<int> expected;
    for (int fd : {0, 1, 2, keep, report[1]}) {
        if (before.count(fd) != 0) {
            expected.insert(fd);
        }
    }
    EXPECT_EQ(open, expected) << out;
    EXPECT_EQ(noConversion, 2u) << "\".\" and \"..\"";
    EXPECT_EQ(strtoulZero, before.count(0) != 0 ? 3u : 2u) << "\".\", \"..\" and \"0\"";
    if (debugOn()) {
        EXPECT_EQ(closedExtraLogged, 1u);
        EXPECT_EQ(closedKeptLogged, 0u);
    }
}

TEST_F(CloseOpenFileDescriptorsTest, WithNothingToKeepLeavesOnlyDescriptorZero) {
    const bool zeroOpen = velacam::test::isOpen(0);
    const pid_t pid = fork();
    ASSERT_NE(pid, -1);
    if (pid == 0) {
        Process::closeOpenFileDescriptors({});
        const std::set<int> open = openDescriptors();
        const std::set<int> expected = zeroOpen ? std::set<int>{0} : std::set<int>{};
        _exit(open == expected ? 0 : 10 + static_cast<int>(open.size()));
    }
    EXPECT_TRUE(exitedWith(reap(pid), 0));
}

}  // namespace
