#include <errno.h>
#include <ipc/CountingSemaphore.h>
#include <ipc/DefaultReactor.h>
#include <ipc/EventHandler.h>
#include <ipc/Poller.h>
#include <ipc/utils/Log.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

#include "internal/Observation.h"

namespace Kestrel::ipc {

namespace {
constexpr utils::LogSite kLogSite{"DefaultReactor", "ipc/DefaultReactor", utils::kLogModuleCore};

using PollEvent = std::pair<int, short>;
using HandlerList = std::vector<std::shared_ptr<EventHandler>>;

bool byDescriptor(const std::shared_ptr<EventHandler>& a, const std::shared_ptr<EventHandler>& b) {
    return a->fd() < b->fd();
}

// "{ 7 5 }" for handlers of descriptors 7 and 5, in list order.
std::string describeDescriptors(const HandlerList& handlers) {
    std::string text = "{ ";
    for (const auto& handler : handlers) {
        text += std::to_string(handler->fd()) + " ";
    }
    return text + "}";
}

// The handler of descriptor `fd` in the sorted list, or null.
const std::shared_ptr<EventHandler>* findHandler(const HandlerList& ascendingHandlers, int fd) {
    const auto found = std::lower_bound(ascendingHandlers.begin(), ascendingHandlers.end(), fd,
                                        [](const std::shared_ptr<EventHandler>& handler, int key) {
                                            return handler->fd() < key;
                                        });
    if (found == ascendingHandlers.end() || (*found)->fd() != fd) {
        return nullptr;
    }
    return &*found;
}

// The failure flags of `revents`, in a fixed order.
std::string describeFailure(short revents) {
    std::string text;
    if ((revents & POLLERR) != 0) {
        text += "|error condition|";
    }
    if ((revents & POLLNVAL) != 0) {
        text += "|invalid file descriptor|";
    }
    if ((revents & POLLHUP) != 0) {
        text += "|hand up|";
    }
    return text;
}
}  // namespace

DefaultReactor::DefaultReactor() {
    mExitEventFd = Kestrel::utils::sys::FileDescriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), 0);
    if (mExitEventFd.get() < 0) {
        IPC_FATAL("create event notification failed (%s)", strerror(errno));
    }
    mSemaphore = std::make_unique<CountingSemaphore>(1);
}

DefaultReactor::~DefaultReactor() { observe::forgetReactor(this); }

// NOLINTNEXTLINE(performance-unnecessary-value-param): the exported virtual signature
bool DefaultReactor::registerEventHandler(std::weak_ptr<EventHandler> handler) {
    const std::shared_ptr<EventHandler> strong = handler.lock();
    if (!strong) {
        IPC_LOGE("event handler is expired");
        return false;
    }
    bool added = false;
    {
        utils::LockGuard lock(mMutex);
        const int key = strong->fd();
        added = mEventHandlers.try_emplace(key, std::move(handler)).second;
        if (added) {
            ++mGeneration;
            IPC_LOGD("[%s] handler(key: %d) registered", __func__, key);
        } else {
            IPC_LOGW("handler(key: %d) already existed", key);
        }
    }
    mSemaphore->release(1);
    IPC_LOGD("[%s] Release Semaphore of Reactor", __func__);
    return added;
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): the exported virtual signature
bool DefaultReactor::removeEventHandler(std::weak_ptr<EventHandler> handler) {
    const std::shared_ptr<EventHandler> strong = handler.lock();
    if (!strong) {
        IPC_LOGE("event handler is expired");
        return false;
    }
    return removeEventHandlerByFd(strong->fd());
}

bool DefaultReactor::removeEventHandlerByFd(int fd) {
    utils::LockGuard lock(mMutex);
    return eraseEntryLocked(fd, false);
}

bool DefaultReactor::eraseEntryLocked(int fd, bool onlyIfExpired) {
    const auto entry = mEventHandlers.find(fd);
    if (entry == mEventHandlers.end()) {
        IPC_LOGW("handler(key: %d) does not registered before", fd);
        return false;
    }
    if (onlyIfExpired && !entry->second.expired()) {
        // Only the loop drops expired entries.
        IPC_LOGD("[%s] handler(key: %d) registered again, keep it", "loop", fd);
        return false;
    }
    mEventHandlers.erase(entry);
    ++mGeneration;
    // Named after the public operation, which is what both callers perform.
    IPC_LOGD("[%s] handler(key: %d) removed", "removeEventHandlerByFd", fd);
    return true;
}

void DefaultReactor::loop(const std::chrono::milliseconds& timeout) {
    Poller poller;
    WatchedHandlers watched;
    HandlerList readyHandlers;
    std::vector<PollEvent> result;
    std::vector<pollfd> pollCopy;  // the poller's set as last waited on
    uint64_t seenGeneration = 0;
    bool fresh = false;  // watched and poller match mGeneration == seenGeneration

    IPC_LOGD("[%s] Block to wait for signal", __func__);
    mSemaphore->acquire();
    IPC_LOGD("[%s] Being signaled", __func__);

    while (true) {
        IPC_LOGD("[%s] (1)", __func__);

        // Wait for a handler. A spin on purpose, with no wake-up owed to it:
        // the gate above opened on a registration or an exit request, so it is
        // short unless every handler has since been removed.
        while (!mExitRequested.load()) {
            utils::LockGuard lock(mMutex);
            if (!mEventHandlers.empty()) {
                break;
            }
            IPC_LOGW("no available handlers, continue to wait...");
        }

        const bool changed = refreshWatched(watched, seenGeneration, fresh);
        if (dropExpired(watched) || changed) {
            rebuildPoller(poller, watched);
        }
        IPC_LOGD("[%s] mExitEventFd(%d) (2)", __func__, mExitEventFd.get());
        IPC_LOGD("[%s] The registered PollEvent count(%zu) timeout milliseconds(%lld)", __func__,
                 watched.size() + 1, static_cast<long long>(timeout.count()));

        poller.poll(timeout, pollCopy, result);
        const int pollError = errno;
        IPC_LOGD("[%s] The result PollEvent count(%zu) (3)", __func__, result.size());
        if (result.empty()) {
            if (pollError == ETIME) {
                IPC_LOGW("poll timed out");
            } else {
                IPC_LOGE("poll failed(%s) errno(%d)", strerror(pollError), pollError);
            }
            // The exit descriptor is heard only through a wait that works:
            // with waits that keep failing (a negative time-out, say) the
            // flag is the only way out.
            if (mExitRequested.load()) {
                IPC_LOGD("[%s] reactor exits now", __func__);
                return;
            }
            IPC_LOGD("[%s] (4)", __func__);
            continue;
        }

        const bool exit = handleExitEvent(result.back());
        result.pop_back();
        if (collectReady(watched, result, readyHandlers)) {
            fresh = false;  // some ready handler had gone: drop it next cycle
        }
        handlePollEvent(result, readyHandlers);
        readyHandlers.clear();  // no handler is kept alive through the next wait
        if (exit) {
            IPC_LOGD("[%s] reactor exits now", __func__);
            return;
        }
        IPC_LOGD("[%s] (4)", __func__);
    }
}

bool DefaultReactor::refreshWatched(WatchedHandlers& watched, uint64_t& seenGeneration,
                                    bool& fresh) {
    HandlerList keepAlive;  // released after the unlock: a last reference may go here
    {
        utils::LockGuard lock(mMutex);
        if (fresh && seenGeneration == mGeneration) {
            return false;
        }
        watched.clear();
        for (const auto& [key, weakHandler] : mEventHandlers) {
            std::shared_ptr<EventHandler> handler = weakHandler.lock();
            const short events = handler ? pollEventsOf(handler->type()) : short{0};
            watched.push_back({key, events, weakHandler});
            if (handler) {
                keepAlive.push_back(std::move(handler));
            }
        }
        seenGeneration = mGeneration;
        fresh = true;
    }
    return true;
}

bool DefaultReactor::dropExpired(WatchedHandlers& watched) {
    size_t kept = 0;
    for (size_t i = 0; i < watched.size(); ++i) {
        if (watched[i].handler.expired()) {
            IPC_LOGW("handler(key: %d) expired, remove it", watched[i].fd);
            utils::LockGuard lock(mMutex);
            eraseEntryLocked(watched[i].fd, true);
            continue;
        }
        IPC_LOGD("[%s] handler(key: %d) active, add it", "loop", watched[i].fd);
        if (kept != i) {
            watched[kept] = std::move(watched[i]);
        }
        ++kept;
    }
    const bool dropped = kept != watched.size();
    watched.resize(kept);
    return dropped;
}

void DefaultReactor::rebuildPoller(Poller& poller, const WatchedHandlers& watched) {
    poller.clear();
    for (const Watched& entry : watched) {
        poller.registerPollEvent(entry.fd, entry.events);
    }
    // Always the last entry, so its result is always the last pair.
    poller.registerPollEvent(mExitEventFd.get(), POLLIN);
}

bool DefaultReactor::collectReady(const WatchedHandlers& watched, std::vector<PollEvent>& events,
                                  HandlerList& readyHandlers) {
    // `events` has one pair per entry of `watched`, in the same (ascending)
    // order, so the ready handlers come out sorted.
    bool gone = false;
    size_t kept = 0;
    for (size_t i = 0; i < events.size(); ++i) {
        const PollEvent event = events[i];
        if (event.second != 0) {
            std::shared_ptr<EventHandler> handler = watched[i].handler.lock();
            if (!handler) {
                // Dropped during the wait: never called, removed next cycle.
                gone = true;
                continue;
            }
            readyHandlers.push_back(std::move(handler));
        }
        events[kept++] = event;
    }
    events.resize(kept);
    return gone;
}

bool DefaultReactor::handleExitEvent(const std::pair<int, short>& event) {
    if ((event.second & POLLIN) == 0) {
        return false;
    }
    IPC_LOGD("[%s] exit event happened", __func__);
    uint64_t value = 0;
    ssize_t bytesRead = 0;
    do {
        bytesRead = read(mExitEventFd.get(), &value, sizeof(value));
    } while (bytesRead < 0 && errno == EINTR);
    if (bytesRead != static_cast<ssize_t>(sizeof(value))) {
        IPC_FATAL("handle exit event failed (%s)", strerror(errno));
    }
    return true;
}

void DefaultReactor::handlePollEvent(const std::vector<std::pair<int, short>>& events,
                                     const HandlerList& ascendingActiveHandlers) {
    observe::cycle(this);
    if (!std::is_sorted(ascendingActiveHandlers.begin(), ascendingActiveHandlers.end(),
                        byDescriptor)) {
        IPC_FATAL("ascendingActiveHandlers is not in ascending order: %s",
                  describeDescriptors(ascendingActiveHandlers).c_str());
    }
    for (const auto& [fd, revents] : events) {
        if (revents == 0) {
            IPC_LOGW("fd(%d): skip output event with zero revents fields", fd);
            continue;
        }
        if ((revents & (POLLERR | POLLHUP | POLLNVAL)) != 0) {
            std::shared_ptr<const HangUpListener> listener;
            {
                utils::LockGuard lock(mListenerLock);
                listener = mHangUpListener;
            }
            // A peer that closed its end is news to an owner who listens for
            // it, not a failure; an error or an invalid descriptor still is.
            if (listener && (revents & (POLLERR | POLLNVAL)) == 0) {
                IPC_LOGI("fd(%d): output event failed: %s", fd, describeFailure(revents).c_str());
            } else {
                IPC_LOGE("fd(%d): output event failed: %s", fd, describeFailure(revents).c_str());
            }
            notifyHangUp(fd, revents, ascendingActiveHandlers, listener.get());
            continue;
        }
        const std::shared_ptr<EventHandler>* found = findHandler(ascendingActiveHandlers, fd);
        if (found == nullptr) {
            IPC_FATAL("cannot find event handler (fd:%d)", fd);
        }
        EventHandler& handler = **found;
        const short wanted = pollEventsOf(handler.type());
        if ((wanted & ~revents) == 0) {
            IPC_LOGD("[%s] dispatch to event handler(fd:%d)", __func__, fd);
            const observe::HandlerRunScope run(this, fd);
            handler.handleEvent();
        } else {
            IPC_LOGE("event handler (fd:%d) cannot handle poll events (%hd)", fd, revents);
        }
    }
}

void DefaultReactor::setHangUpListener(HangUpListener listener) {
    std::shared_ptr<const HangUpListener> installed;
    if (listener) {
        installed = std::make_shared<const HangUpListener>(std::move(listener));
    }
    utils::LockGuard lock(mListenerLock);
    mHangUpListener.swap(installed);
    // `installed` now holds the one replaced: it is destroyed after the lock
    // is released, or later by a dispatch still calling it.
}

void DefaultReactor::notifyHangUp(int fd, short revents, const HandlerList& ascendingActiveHandlers,
                                  const HangUpListener* listener) {
    observe::hangUp(this, revents);
    if (listener == nullptr) {
        return;
    }
    // Every polled descriptor but the exit eventfd comes from the active list.
    const std::shared_ptr<EventHandler>* handler = findHandler(ascendingActiveHandlers, fd);
    if (handler == nullptr) {
        return;
    }
    // Lines name the public operation, never this helper.
    IPC_LOGD("[%s] hang-up notice for event handler(fd:%d)", "handlePollEvent", fd);
    (*listener)(fd, revents, *handler);
}

void DefaultReactor::requestExit() {
    const uint64_t one = 1;
    ssize_t written = 0;
    do {
        written = write(mExitEventFd.get(), &one, sizeof(one));
    } while (written < 0 && errno == EINTR);
    IPC_LOGD("[%s] bytes_sent(%zd)", __func__, written);
    if (written == static_cast<ssize_t>(sizeof(one))) {
        mExitRequested.store(true);
        mSemaphore->release(1);
        IPC_LOGD("[%s] Release Semaphore of Reactor", __func__);
        return;
    }
    if (errno != -11) {
        IPC_FATAL("request Reactor to exit failed (%s)", strerror(errno));
    }
}

}  // namespace Kestrel::ipc
