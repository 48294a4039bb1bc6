// Poller: a thread-safe set of descriptors with the poll events wanted on
// each, and a one-shot wait on that set through ppoll(2).
//
// Entries keep their registration order and each descriptor occurs at most
// once; lookups are linear scans (the set is small: one entry per live event
// handler plus one). The poller owns no descriptor: it never opens or closes
// one. The reactor builds a fresh poller each cycle; a socket builds one for
// its own descriptor (UnixDomainSocket::getPoller).
//
// Thread: every operation may be called from any thread. Mutations and the
// snapshots of registeredPollEvents() and poll() take mMutex exclusively; the
// copy constructor takes the source's shared. The wait runs on a private copy
// without any lock, so registrations made during a wait take effect at the
// next poll(). Clang checks the locking against the annotations below.
//
// Failure: poll() reports through an empty result and errno (see poll()).
// Nothing throws except the lock acquisition in copy assignment, which can
// raise std::system_error as any standard lock can.
//
// Compatibility: kept as existing callers rely on it. A poll() time-out of
// 0 ms waits without limit rather than returning at once. dump() takes no
// lock: it is for a thread that owns the poller alone. registeredPollEvents()
// takes the lock exclusively although it only reads, and copies keep the
// source's revents.
#pragma once

#include <poll.h>
#include <time.h>

#include <chrono>
#include <utility>
#include <vector>

#include "ipc/Export.h"
#include "ipc/utils/Mutex.h"
#include "ipc/utils/ThreadSafety.h"

namespace Kestrel::ipc {

namespace utils {

// {d / 1 s, d % 1 s} with truncating division: a negative duration gives
// fields that are zero or negative (ppoll rejects such a time-out).
IPC_EXPORT timespec durationToTimespec(std::chrono::nanoseconds d);

}  // namespace utils

class IPC_EXPORT Poller {
  public:
    // (descriptor, events) as registered, or (descriptor, revents) from poll().
    using PollEvent = std::pair<int, short>;

    Poller() = default;
    // Copies the entries (fd, events and revents of each); the lock is not
    // copied.
    Poller(const Poller& other) IPC_EXCLUDES(other.mMutex);
    // Self-assignment does nothing. Otherwise takes this poller's lock
    // exclusively and `other`'s shared, both at once without risk of
    // deadlock, and copies the entries.
    Poller& operator=(const Poller& other) IPC_EXCLUDES(mMutex, other.mMutex);

    // Adds `fd` with `events`, or overwrites the mask of an entry already
    // present for `fd` in place (its position and revents stay).
    void registerPollEvent(int fd, short events) IPC_EXCLUDES(mMutex);

    // Removes the entry of `fd`, keeping the others in order. False, with the
    // warning "fd(%d) is not registered before, do nothing", when absent.
    bool unregisterPollEvent(int fd) IPC_EXCLUDES(mMutex);

    // Logs the table: one debug line per entry, or the warning
    // "mPollfds is empty". Takes no lock and is not checked by the lock
    // analysis: call it only on a poller no other thread uses.
    void dump() const;

    // The (fd, events) entries in registration order.
    std::vector<PollEvent> registeredPollEvents() const IPC_EXCLUDES(mMutex);

    // Waits once on a copy of the set and returns one (fd, revents) pair per
    // entry in registration order, zero revents included: callers skip those.
    // A `timeout` of 0 ms waits without limit; a negative one fails with
    // EINVAL. A signal that
    // interrupts the wait restarts it with the full `timeout`.
    // An empty result is told apart only by errno:
    //   unchanged  nothing registered (no system call made),
    //   ETIME      the time-out expired with nothing ready,
    //   other      ppoll failed with that error.
    // Blocks: up to `timeout`, without holding the lock.
    std::vector<PollEvent> poll(std::chrono::milliseconds timeout) IPC_EXCLUDES(mMutex);

    // Removes every entry.
    void clear() IPC_EXCLUDES(mMutex);

  private:
    // The reactor polls once per cycle: poll() with the copy of the set
    // (`pollfds`) and the result in vectors it keeps from cycle to cycle, so
    // that a steady loop allocates nothing. `result` is cleared first. It is
    // the same operation, and its lines say "[poll]" as the public one's do.
    friend class DefaultReactor;
    void poll(std::chrono::milliseconds timeout, std::vector<pollfd>& pollfds,
              std::vector<PollEvent>& result) IPC_EXCLUDES(mMutex);

    // dump() for the poller's own code: the analysis checks that the caller
    // holds the lock.
    void dumpLocked() const IPC_REQUIRES_SHARED(mMutex);

    mutable utils::SharedMutex mMutex;
    std::vector<pollfd> mPollfds IPC_GUARDED_BY(mMutex);
};

}  // namespace Kestrel::ipc
