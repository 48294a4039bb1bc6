// velacam_fault_contract: runs the transport and reactor scenarios, each in
// a child process of its own, and says for each whether the library kept its
// contract under the faults the preloaded interposer planted: the child's
// verdict, or a fatal end whose line the library documents, or a crash, or a
// hang (no end within 60 s).
//
//   velacam_fault_contract [MESSAGES]     (default 300)
#include <dirent.h>
#include <ipc/DefaultReactor.h>
#include <ipc/SocketEventHandler.h>
#include <ipc/UnixDomainSocket.h>
#include <ipc/utils/FunctionRunnable.h>
#include <ipc/utils/Thread.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <future>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "ContractJudge.h"

namespace velacam::faults {

using namespace Kestrel::ipc;
using namespace Kestrel::ipc::utils;

namespace {

constexpr unsigned long kBuffer = 64 * 1024;
constexpr int kArrivalWaitMs = 2000;

int sendAndRelease(UnixDomainSocket& socket, uint32_t index) {
    auto message = messageFor(index);
    const int result = socket.send(*message);
    for (int fd : message->payload().fds) {
        ::close(fd);
    }
    return result;
}

bool readable(int fd, int waitMs) {
    pollfd entry{fd, POLLIN, 0};
    return ::poll(&entry, 1, waitMs) > 0 && (entry.revents & POLLIN) != 0;
}

struct Ends {
    UnixDomainSocket sender;
    UnixDomainSocket receiver;
    int receiverFd = -1;
    void renew() {
        SocketPair pair = UnixDomainSocket::createPairedSocket(kBuffer, kBuffer, false);
        receiverFd = pair.first.get();
        receiver.bind(std::move(pair.first));
        sender.bind(std::move(pair.second));
    }
};

// Descriptors open in this process.
size_t openDescriptorCount() {
    DIR* listing = ::opendir("/proc/self/fd");
    size_t count = 0;
    while (const dirent* entry = listing != nullptr ? ::readdir(listing) : nullptr) {
        count += entry->d_name[0] != '.' ? 1 : 0;
    }
    if (listing != nullptr) {
        ::closedir(listing);
    }
    return count;
}

int finish(const char* name, const ContractJudge& judge, size_t descriptorsBefore) {
    const size_t after = openDescriptorCount();
    const bool leakFree = after == descriptorsBefore;
    std::printf("%s: %s; faults planted %llu; descriptors %zu before, %zu after%s\n", name,
                judge.summary().c_str(), static_cast<unsigned long long>(faultsPlanted()),
                descriptorsBefore, after, leakFree ? "" : "; VIOLATION: descriptors leaked");
    std::fflush(stdout);
    return judge.kept() && leakFree ? 0 : 1;
}

// Messages sent one by one and in bursts of three over a socket pair,
// received with UnixDomainSocket::recv; a connection left unusable is
// replaced. Prints one summary line; 0 when the contract held.
int transportScenario(uint32_t messages) {
    const size_t before = openDescriptorCount();
    ContractJudge judge;
    {
        Ends ends;
        ends.renew();
        for (uint32_t index = 1; index <= messages;) {
            const uint32_t burst = index % 5 == 0 ? 3 : 1;
            for (uint32_t b = 0; b < burst && index <= messages; ++b, ++index) {
                judge.expect(index);
                const uint64_t planted = faultsPlanted();
                const int result = sendAndRelease(ends.sender, index);
                judge.sent(index, result, faultsPlanted() != planted);
                if (ContractJudge::breaksConnection(result)) {
                    ends.renew();
                    judge.renewed();
                }
            }
            while (judge.owed()) {
                if (!readable(ends.receiverFd, kArrivalWaitMs)) {
                    judge.nothingArrived();
                    break;
                }
                Message received;
                const uint64_t planted = faultsPlanted();
                const int result = ends.receiver.recv(&received);
                judge.received(result, &received, faultsPlanted() != planted);
                if (ContractJudge::breaksConnection(result)) {
                    ends.renew();
                    judge.renewed();
                }
            }
        }
    }
    return finish("transport", judge, before);
}

// The same messages received by a SocketEventHandler on a DefaultReactor's
// thread; then requestExit() must end the loop within 5 s.
int reactorScenario(uint32_t messages) {
    const size_t before = openDescriptorCount();
    ContractJudge judge;
    std::mutex mutex;  // guards judge and broken across the two threads
    std::condition_variable arrived;
    bool broken = false;
    {
        SocketPair pair = UnixDomainSocket::createPairedSocket(kBuffer, kBuffer, false);
        UnixDomainSocket sender;
        sender.bind(std::move(pair.second));
        auto handler = std::make_shared<SocketEventHandler>(std::move(pair.first), EventType::READ);
        DefaultReactor reactor;
        handler->setRunnable(std::make_shared<FunctionRunnable>([&] {
            Message received;
            const uint64_t planted = faultsPlanted();
            const int result = handler->receiveMessage(&received);
            std::lock_guard<std::mutex> lock(mutex);
            // The sender may plant faults meanwhile: a miss here, never a
            // false alarm.
            judge.received(result, &received, faultsPlanted() != planted);
            if (ContractJudge::breaksConnection(result)) {
                broken = true;
                (void)reactor.removeEventHandlerByFd(handler->fd());
            }
            arrived.notify_all();
        }));
        Thread loop(new FunctionRunnable([&] { reactor.loop(std::chrono::milliseconds(0)); }),
                    true);
        loop.start();
        (void)reactor.registerEventHandler(handler);
        for (uint32_t index = 1; index <= messages; ++index) {
            {
                std::lock_guard<std::mutex> lock(mutex);
                judge.expect(index);
            }
            const uint64_t planted = faultsPlanted();
            const int result = sendAndRelease(sender, index);
            std::unique_lock<std::mutex> lock(mutex);
            judge.sent(index, result, faultsPlanted() != planted);
            if (ContractJudge::breaksConnection(result) || broken) {
                break;
            }
            if (!arrived.wait_for(lock, std::chrono::milliseconds(kArrivalWaitMs),
                                  [&] { return !judge.owed() || broken; })) {
                judge.nothingArrived();
            }
        }
        reactor.requestExit();
        auto joined = std::async(std::launch::async, [&loop] { loop.wait(); });
        if (joined.wait_for(std::chrono::seconds(5)) != std::future_status::ready) {
            std::printf("reactor: VIOLATION: the loop did not return within 5 s of requestExit\n");
            std::fflush(stdout);
            ::_exit(3);
        }
    }
    return finish("reactor", judge, before);
}

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
}  // namespace velacam::faults

int main(int argc, char** argv) {
    using namespace velacam::faults;
    const uint32_t messages =
            argc > 1 ? static_cast<uint32_t>(std::strtoul(argv[1], nullptr, 10)) : 300;
    bool held = runChild("transport", transportScenario, messages);
    held = runChild("reactor", reactorScenario, messages) && held;
    return held ? 0 : 1;
}
