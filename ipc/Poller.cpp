#include <errno.h>
#include <ipc/Poller.h>
#include <ipc/utils/Log.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <shared_mutex>

namespace Kestrel::ipc {

namespace {
constexpr utils::LogSite kLogSite{"Poller", "ipc/Poller", utils::kLogModuleCore};

// A time-out beyond what nanoseconds can hold (about 292 years) is clamped to
// that, so that the conversion never overflows; no wait lasts that long.
constexpr std::chrono::milliseconds kLongestTimeout =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::nanoseconds::max());

timespec timespecOf(std::chrono::milliseconds timeout) {
    const std::chrono::milliseconds clamped =
            std::clamp(timeout, -kLongestTimeout, kLongestTimeout);
    return utils::durationToTimespec(clamped);
}

}  // namespace

namespace utils {

timespec durationToTimespec(std::chrono::nanoseconds d) {
    constexpr int64_t kNanosPerSecond = 1000000000;
    timespec ts{};
    ts.tv_sec = static_cast<time_t>(d.count() / kNanosPerSecond);
    ts.tv_nsec = static_cast<long>(d.count() % kNanosPerSecond);
    return ts;
}

}  // namespace utils

Poller::Poller(const Poller& other) {
    utils::SharedLock lock(other.mMutex);
    mPollfds = other.mPollfds;
}

Poller& Poller::operator=(const Poller& other) {
    if (&other == this) {
        return *this;
    }
    // Both at once, in whichever order avoids a deadlock with an assignment
    // the other way round.
    std::unique_lock<std::shared_mutex> mine(mMutex.native(), std::defer_lock);
    std::shared_lock<std::shared_mutex> theirs(other.mMutex.native(), std::defer_lock);
    std::lock(mine, theirs);
    mMutex.assertHeld();
    other.mMutex.assertReaderHeld();
    mPollfds = other.mPollfds;
    return *this;
}

void Poller::registerPollEvent(int fd, short events) {
    utils::LockGuard lock(mMutex);
    const auto found = std::find_if(mPollfds.begin(), mPollfds.end(),
                                    [fd](const pollfd& entry) { return entry.fd == fd; });
    if (found != mPollfds.end()) {
        IPC_LOGD("[%s] fd(%d) is registered before, overwrites it", __func__, fd);
        found->fd = fd;
        found->events = events;
        return;
    }
    mPollfds.push_back(pollfd{fd, events, 0});
    IPC_LOGD("[%s] fd(%d) registered", __func__, fd);
}

bool Poller::unregisterPollEvent(int fd) {
    utils::LockGuard lock(mMutex);
    const auto found = std::find_if(mPollfds.begin(), mPollfds.end(),
                                    [fd](const pollfd& entry) { return entry.fd == fd; });
    if (found == mPollfds.end()) {
        IPC_LOGW("fd(%d) is not registered before, do nothing", fd);
        return false;
    }
    dumpLocked();
    mPollfds.erase(found);
    IPC_LOGD("[%s] fd(%d) is unregistered", __func__, fd);
    dumpLocked();
    return true;
}

void Poller::dumpLocked() const { dump(); }

// Unchecked: reads mPollfds without taking the lock; its callers hold it
// (dumpLocked) or own the poller alone.
void Poller::dump() const IPC_NO_THREAD_SAFETY_ANALYSIS {
    if (mPollfds.empty()) {
        IPC_LOGW("mPollfds is empty");
        return;
    }
    for (const pollfd& entry : mPollfds) {
        IPC_LOGD("[%s] fd(%d) events(%hu) revents(%hu)", __func__, entry.fd,
                 static_cast<unsigned short>(entry.events),
                 static_cast<unsigned short>(entry.revents));
    }
}

std::vector<Poller::PollEvent> Poller::registeredPollEvents() const {
    utils::LockGuard lock(mMutex);
    std::vector<PollEvent> events;
    events.reserve(mPollfds.size());
    for (const pollfd& entry : mPollfds) {
        events.emplace_back(entry.fd, entry.events);
    }
    return events;
}

std::vector<Poller::PollEvent> Poller::poll(std::chrono::milliseconds timeout) {
    std::vector<pollfd> copy;
    std::vector<PollEvent> result;
    poll(timeout, copy, result);
    return result;
}

void Poller::poll(std::chrono::milliseconds timeout, std::vector<pollfd>& pollfds,
                  std::vector<PollEvent>& result) {
    {
        utils::LockGuard lock(mMutex);
        pollfds.assign(mPollfds.begin(), mPollfds.end());
    }
    result.clear();
    if (pollfds.empty()) {
        const int saved = errno;  // "nothing registered" is told by errno left as it was
        IPC_LOGW("no available registered file descriptor, do nothing");
        errno = saved;
        return;
    }

    int ready;
    do {
        // After a signal the wait starts over with the full time-out.
        timespec limit{};
        const timespec* limitOrNone = nullptr;
        if (timeout.count() != 0) {
            limit = timespecOf(timeout);
            limitOrNone = &limit;
        }
        IPC_LOGD("[%s] pollfds size(%zu) timeout sec(%ld) nsec(%ld)", __func__, pollfds.size(),
                 static_cast<long>(limit.tv_sec), static_cast<long>(limit.tv_nsec));
        ready = ::ppoll(pollfds.data(), pollfds.size(), limitOrNone, nullptr);
    } while (ready < 0 && errno == EINTR);

    if (ready > 0) {
        result.reserve(pollfds.size());
        for (const pollfd& entry : pollfds) {
            result.emplace_back(entry.fd, entry.revents);
        }
        return;
    }
    const int error = ready == 0 ? ETIME : errno;
    if (ready == 0) {
        IPC_LOGD("[%s] ppoll() timed out and no file descriptors were ready(%s) errno(%d)",
                 __func__, std::strerror(error), error);
    } else {
        IPC_LOGE("ppoll() failed(%s) errno(%d)", std::strerror(error), error);
    }
    errno = error;  // the caller tells time-out from failure by it
}

void Poller::clear() {
    utils::LockGuard lock(mMutex);
    mPollfds.clear();
}

}  // namespace Kestrel::ipc
