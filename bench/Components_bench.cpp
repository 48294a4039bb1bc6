// The pieces of a round trip's user-space cost, each beside the bare
// operation it wraps, so that a ratio to the floor can be explained:
//
// - Poller_cycle: what the reactor does with its poller on every cycle:
//   clear(), one registerPollEvent() per live handler plus the exit
//   descriptor (each a linear scan for a duplicate under an exclusive lock),
//   then poll(), which copies the set, calls ppoll() and builds one
//   (fd, revents) pair per entry. One descriptor is always ready so that
//   ppoll() returns at once. Reference_ppoll: ppoll() on the same prepared
//   array.
// - Message_payload: the unpacked copy of a message's payload that
//   payload() hands a user (send no longer takes one: it sends from the
//   message's storage). Reference: copying the same bytes into a buffer on
//   the stack.
#include <benchmark/benchmark.h>
#include <ipc/Message.h>
#include <ipc/MessageHandler.h>
#include <ipc/Poller.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <vector>

namespace velacam::bench {
namespace {

using Kestrel::ipc::Message;
using Kestrel::ipc::MessageHandler;
using Kestrel::ipc::Poller;

// `idle` eventfds that stay at 0 and one that is always readable (the last).
class PollSet {
  public:
    explicit PollSet(size_t idle) {
        for (size_t i = 0; i < idle; ++i) {
            mFds.push_back(eventfd(0, EFD_CLOEXEC));
        }
        mFds.push_back(eventfd(1, EFD_CLOEXEC));
    }
    ~PollSet() {
        for (int fd : mFds) {
            close(fd);
        }
    }
    PollSet(const PollSet&) = delete;
    PollSet& operator=(const PollSet&) = delete;

    const std::vector<int>& fds() const { return mFds; }
    bool ok() const {
        for (int fd : mFds) {
            if (fd < 0) {
                return false;
            }
        }
        return true;
    }

  private:
    std::vector<int> mFds;
};

void Poller_cycle(benchmark::State& state) {
    PollSet set(static_cast<size_t>(state.range(0)));
    if (!set.ok()) {
        state.SkipWithError("eventfd failed");
        return;
    }
    Poller poller;
    for (auto _ : state) {
        poller.clear();
        for (int fd : set.fds()) {
            poller.registerPollEvent(fd, POLLIN);
        }
        const auto result = poller.poll(std::chrono::milliseconds(1));
        if (result.size() != set.fds().size()) {
            state.SkipWithError("poll returned early");
            break;
        }
    }
}

void Reference_ppoll(benchmark::State& state) {
    PollSet set(static_cast<size_t>(state.range(0)));
    if (!set.ok()) {
        state.SkipWithError("eventfd failed");
        return;
    }
    std::vector<pollfd> entries;
    for (int fd : set.fds()) {
        entries.push_back({fd, POLLIN, 0});
    }
    const timespec limit{0, 1000000};
    for (auto _ : state) {
        if (ppoll(entries.data(), entries.size(), &limit, nullptr) <= 0) {
            state.SkipWithError("poll returned early");
            break;
        }
    }
}

Message makeMessage(size_t dataSize, size_t fdCount) {
    Message message(std::make_shared<MessageHandler>());
    Message::Payload payload;
    payload.data.assign(dataSize, 0x5a);
    payload.fds.assign(fdCount, 0);
    message.setHeader(7, 1, 0, static_cast<uint32_t>(dataSize), static_cast<uint16_t>(fdCount));
    message.setPayload(payload);
    return message;
}

void Message_payload(benchmark::State& state) {
    const Message message =
            makeMessage(static_cast<size_t>(state.range(0)), static_cast<size_t>(state.range(1)));
    for (auto _ : state) {
        Message::Payload payload = message.payload();
        benchmark::DoNotOptimize(payload.data.data());
        benchmark::DoNotOptimize(payload.fds.data());
    }
}

void Reference_copy(benchmark::State& state) {
    const size_t bytes = static_cast<size_t>(state.range(0)) + 4 * state.range(1);
    const std::vector<uint8_t> source(bytes, 0x5a);
    for (auto _ : state) {
        uint8_t copy[4096 + 4 * 16];
        std::memcpy(copy, source.data(), bytes);
        benchmark::DoNotOptimize(copy);
    }
}

BENCHMARK(Poller_cycle)->ArgName("fds")->Arg(2)->Arg(17)->Arg(257);
BENCHMARK(Reference_ppoll)->ArgName("fds")->Arg(2)->Arg(17)->Arg(257);
BENCHMARK(Message_payload)->ArgNames({"payload", "fds"})->Args({64, 0})->Args({64, 1});
BENCHMARK(Reference_copy)->ArgNames({"payload", "fds"})->Args({64, 0})->Args({64, 1});

}  // namespace
}  // namespace velacam::bench
