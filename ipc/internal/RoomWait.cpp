#include "RoomWait.h"

#include <errno.h>
#include <poll.h>

#include <algorithm>
#include <thread>

namespace Kestrel::ipc {

using bounded_receive::Clock;

namespace {
constexpr std::chrono::milliseconds kNoMemoryPause{1};
}  // namespace

RoomWait::RoomWait(int socketFd, std::chrono::milliseconds timeout)
    : mSocketFd(socketFd), mTimeout(timeout) {}

void RoomWait::start() {
    if (!mStarted) {
        mStarted = true;
        mDeadline = bounded_receive::Deadline{mTimeout.count() != 0, Clock::now() + mTimeout};
    }
}

int RoomWait::forRoom() {
    start();
    return bounded_receive::waitUntilReady(mSocketFd, POLLOUT, mDeadline);
}

int RoomWait::afterNoMemory() {
    start();
    Clock::duration pause = kNoMemoryPause;
    if (mDeadline.bounded) {
        const Clock::time_point now = Clock::now();
        if (now >= mDeadline.at) {
            return -ETIMEDOUT;
        }
        pause = std::min(pause, mDeadline.at - now);
    }
    std::this_thread::sleep_for(pause);
    return 0;
}

bool RoomWait::socketIsNonBlocking() const { return !bounded_receive::isBlocking(mSocketFd); }

}  // namespace Kestrel::ipc
