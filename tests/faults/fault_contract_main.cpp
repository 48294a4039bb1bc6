// velacam_fault_contract: runs the transport and reactor scenarios, each in
// a child process of its own, and says for each whether the library kept its
// contract under the faults the preloaded interposer planted: the child's
// verdict, or a fatal end whose line the library documents, or a crash, or a
// hang (no end within 60 s).
//
//   velacam_fault_contract [MESSAGES]     (default 300)
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include "Scenarios.h"

namespace {

// The fatal lines the library documents for failures of the calls planted.
constexpr const char* kDocumentedFatal[] = {"create event notification failed",
                                            "handle exit event failed",
                                            "request Reactor to exit failed"};

// The last line of `text`, with its newline.
std::string lastLineOf(const std::string& text) {
    const size_t start = text.size() < 2 ? std::string::npos : text.rfind('\n', text.size() - 2);
    return text.substr(start == std::string::npos ? 0 : start + 1);
}

// Runs `scenario` in a child; prints its outcome; true when the contract held.
bool runChild(const char* name, int (*scenario)(uint32_t), uint32_t messages) {
    char errors[] = "/tmp/velacam_fault_contract_XXXXXX";
    const int errorFd = ::mkstemp(errors);
    std::fflush(stdout);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(errorFd, 2);
        std::exit(scenario(messages));  // exit(): the interposer writes its report at exit
    }
    ::close(errorFd);
    int status = 0;
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (::waitpid(pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > limit) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, &status, 0);
            std::printf("%s: OUTCOME hang (no end within 60 s)\n", name);
            ::unlink(errors);
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    std::ifstream errorFile(errors);
    const std::string errorText{std::istreambuf_iterator<char>(errorFile), {}};
    const bool documented = std::any_of(
            std::begin(kDocumentedFatal), std::end(kDocumentedFatal),
            [&](const char* line) { return errorText.find(line) != std::string::npos; });
    bool held = false;
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
        std::printf("%s: OUTCOME kept\n", name);
        held = true;
    } else if (WIFEXITED(status)) {
        std::printf("%s: OUTCOME violation (exit %d)\n", name, WEXITSTATUS(status));
    } else if (WTERMSIG(status) == SIGABRT && documented) {
        std::printf("%s: OUTCOME fatal, documented: %s", name, lastLineOf(errorText).c_str());
        held = true;
    } else {
        std::printf("%s: OUTCOME crash (signal %d): %s", name, WTERMSIG(status),
                    lastLineOf(errorText).c_str());
    }
    ::unlink(errors);
    return held;
}

}  // namespace

int main(int argc, char** argv) {
    const uint32_t messages =
            argc > 1 ? static_cast<uint32_t>(std::strtoul(argv[1], nullptr, 10)) : 300;
    bool held = runChild("transport", velacam::faults::transportScenario, messages);
    held = runChild("reactor", velacam::faults::reactorScenario, messages) && held;
    return held ? 0 : 1;
}
