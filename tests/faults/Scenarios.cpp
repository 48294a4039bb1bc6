#include "Scenarios.h"

#include <dirent.h>
#include <ipc/DefaultReactor.h>
#include <ipc/SocketEventHandler.h>
#include <ipc/UnixDomainSocket.h>
#include <ipc/utils/FunctionRunnable.h>
#include <ipc/utils/Thread.h>
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <future>
#include <memory>
#include <mutex>

#include "ContractJudge.h"

namespace velacam::faults {

using Kestrel::ipc::DefaultReactor;
using Kestrel::ipc::EventType;
using Kestrel::ipc::Message;
using Kestrel::ipc::SocketEventHandler;
using Kestrel::ipc::SocketPair;
using Kestrel::ipc::UnixDomainSocket;
using Kestrel::ipc::utils::FunctionRunnable;
using Kestrel::ipc::utils::Thread;

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

}  // namespace

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

}  // namespace velacam::faults
