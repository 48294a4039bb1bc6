#include "RoundTripSetup.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace velacam::bench {

void addRoundTripCases(benchmark::internal::Benchmark* benchmark) {
    benchmark->ArgNames({"payload", "fds", "idle", "pinned"});
    for (int pinned : {0, 1}) {
        for (int payload : {64, 4096}) {
            for (int fds : {0, 1, 4, 16}) {
                benchmark->Args({payload, fds, 0, pinned});
            }
        }
        for (int idle : {16, 256}) {
            benchmark->Args({64, 0, idle, pinned});
        }
    }
    benchmark->UseRealTime();
}

void addLargeCases(benchmark::internal::Benchmark* benchmark) {
    benchmark->ArgNames({"payload", "fds", "idle", "pinned"});
    for (int pinned : {0, 1}) {
        benchmark->Args({static_cast<int>(kLargestRecord), 0, 0, pinned});
    }
    benchmark->UseRealTime();
}

void addPeerCases(benchmark::internal::Benchmark* benchmark) {
    benchmark->ArgNames({"payload", "fds", "idle", "pinned"});
    benchmark->Args({64, 0, 0, 0});
    benchmark->Args({64, 0, 0, 1});
    benchmark->UseRealTime();
}

void addTargetCases(benchmark::internal::Benchmark* benchmark) {
    benchmark->ArgNames({"payload", "fds", "idle", "pinned"});
    for (int pinned : {0, 1}) {
        for (int fds : {0, 1}) {
            benchmark->Args({64, fds, 0, pinned});
        }
    }
    benchmark->UseRealTime();
}

bool socketHolds(int socket, size_t bytes) {
    // A datagram's socket buffer (skb) overhead, generously.
    constexpr size_t kRecordOverhead = 4096;
    int granted = 0;
    socklen_t length = sizeof(granted);
    return getsockopt(socket, SOL_SOCKET, SO_SNDBUF, &granted, &length) == 0 &&
           static_cast<size_t>(granted) >= bytes + kRecordOverhead;
}

SentDescriptors::SentDescriptors(size_t count) {
    for (size_t i = 0; i < count; ++i) {
        mFds.push_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
    }
}

SentDescriptors::~SentDescriptors() {
    for (int fd : mFds) {
        if (fd >= 0) {
            close(fd);
        }
    }
}

IdleSockets::IdleSockets(size_t count) {
    for (size_t i = 0; i < count; ++i) {
        int pair[2];
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) {
            mOk = false;
            return;
        }
        mWatched.push_back(pair[0]);
        mQuiet.push_back(pair[1]);
    }
}

IdleSockets::~IdleSockets() {
    for (int fd : mWatched) {
        close(fd);
    }
    for (int fd : mQuiet) {
        close(fd);
    }
}

}  // namespace velacam::bench
