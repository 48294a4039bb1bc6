// Process: children running the machine's own programs (so that it works
// under an emulator too), and closing inherited descriptors.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <ipc/utils/Process.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include "support/Descriptors.h"
#include "support/LogCapture.h"
#include "support/RawPeer.h"
#include "support/Waiting.h"

namespace {

using namespace Kestrel::ipc::utils;
using namespace velacam::test;

// Reaps `pid`: "exit N" or "signal N".
std::string endOf(pid_t pid) {
    Watchdog watchdog("waitpid", 20s);
    int status = 0;
    while (waitpid(pid, &status, 0) == -1 && errno == EINTR) {
    }
    return WIFEXITED(status) ? "exit " + std::to_string(WEXITSTATUS(status))
                             : "signal " + std::to_string(WTERMSIG(status));
}

class ProcessTest : public ::testing::Test {
  protected:
    // A child in which exec failed and create() returned ends here.
    Process start(Process& parent, const std::string& program, std::vector<std::string> argv) {
        Process child = parent.create(program, argv, {});
        if (getpid() != mParentPid) {
            _exit(127);
        }
        EXPECT_GT(child.pid(), 0);
        return child;
    }

    const pid_t mParentPid = getpid();
    LogCapture mCapture;
    ScopedLeakCheck mLeaks;
};

TEST_F(ProcessTest, Create_RunsTheProgramWithItsArguments_OrReturnsMinusOneInTheChildOnFailure) {
    Process self;
    // With -c and no operand after the script, sh sees its own argv[0] as $0.
    Process named = start(self, "/bin/sh", {"-c", "[ \"$0\" = /bin/sh ] && exit 3; exit 9"});
    // Operands after the script: $0 is "zero", then two positional ones.
    Process counted = start(self, "/bin/sh", {"-c", "exit $#", "zero", "one", "two"});
    Process missing = self.create("/nonexistent/velacam-program", {"first"}, {});
    if (getpid() != mParentPid) {
        // The child: exec failed and control came back here.
        const bool expected = missing.pid() == -1 && missing.children().empty() &&
                              mCapture.count(
                                      "execute a file (/nonexistent/velacam-program) "
                                      "failed(No such file or directory)") == 1;
        _exit(expected ? 42 : 43);
    }
    EXPECT_TRUE(named.children().empty());
    std::vector<int> observed;
    for (const Process& child : self.children()) {
        observed.push_back(child.pid());
    }
    EXPECT_EQ(observed, (std::vector<int>{named.pid(), counted.pid(), missing.pid()}));
    EXPECT_EQ(endOf(named.pid()), "exit 3");
    EXPECT_EQ(endOf(counted.pid()), "exit 2");
    EXPECT_EQ(endOf(missing.pid()), "exit 42");
}

TEST_F(ProcessTest, Terminate_SendsSigtermToAValidIdOnly_RemovalAndTerminateAllKeepTheirSteps) {
    Process self;
    Process sleeper = start(self, "/bin/sleep", {"30"});
    EXPECT_TRUE(sleeper.terminate());
    EXPECT_EQ(endOf(sleeper.pid()), "signal " + std::to_string(SIGTERM));
    EXPECT_FALSE(sleeper.terminate());  // reaped already
    EXPECT_EQ(mCapture.count("failed to kill the process (No such process)"), 1u);
    EXPECT_FALSE(Process(-1).terminate());
    EXPECT_EQ(mCapture.levelOf("invalid process ID (-1)"), 1u);

    // Keeps the one it failed to terminate; drops the next one unterminated.
    Process skipped = start(self, "/bin/sleep", {"30"});
    Process last = start(self, "/bin/sleep", {"30"});
    Process copy = self;  // a list of its own
    EXPECT_FALSE(self.terminateAllChildProcess());
    ASSERT_EQ(self.children().size(), 1u);
    EXPECT_EQ(self.children().front().pid(), sleeper.pid());
    EXPECT_EQ(endOf(last.pid()), "signal " + std::to_string(SIGTERM));
    EXPECT_EQ(waitpid(skipped.pid(), nullptr, WNOHANG), 0);  // still running
    ASSERT_EQ(kill(skipped.pid(), SIGKILL), 0);
    EXPECT_EQ(endOf(skipped.pid()), "signal " + std::to_string(SIGKILL));

    ASSERT_EQ(copy.children().size(), 3u);
    copy.removeFromObservation(sleeper.pid());
    EXPECT_EQ(copy.children().size(), 2u);
}

TEST_F(ProcessTest, CloseOpenFileDescriptors_KeepsExactlyTheListedOnesAndZero) {
    const int extra = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const int keep = open("/dev/null", O_RDONLY | O_CLOEXEC);

    const std::set<int> before = openDescriptors();
    const auto openOf = [&before](const std::set<int>& wanted) {
        std::set<int> open;
        std::set_intersection(wanted.begin(), wanted.end(), before.begin(), before.end(),
                              std::inserter(open, open.end()));
        return open;
    };
    // Each child exits with 0 when exactly the listed descriptors are left.
    const int kept = waitPeer(forkPeer([&] {
        Process::closeOpenFileDescriptors({2, keep, 1, 999});  // unsorted; 999 is not open
        return openDescriptors() == openOf({0, 1, 2, keep}) ? 0 : 10;
    }));
    EXPECT_EQ(kept, 0);
    const int none = waitPeer(forkPeer([&] {
        Process::closeOpenFileDescriptors({});
        return openDescriptors() == openOf({0}) ? 0 : 10;
    }));
    EXPECT_EQ(none, 0);
    close(extra);
    close(keep);
}

}  // namespace
