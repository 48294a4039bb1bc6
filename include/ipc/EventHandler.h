// EventHandler: the base of everything the reactor watches.
//
// A handler binds one descriptor to one EventType and has one operation,
// handleEvent(), which the reactor calls on its own thread when the descriptor
// is ready for that kind of event. The base does not own the descriptor (a
// subclass may). Handlers are owned by std::shared_ptr; the reactor keeps only
// std::weak_ptr to them, so dropping the last owner ends the registration.
//
// Thread: fd() and type() may be read from any thread (both are fixed at
// construction); handleEvent() runs on the reactor's thread. Failure: nothing
// here fails.
#pragma once

#include <poll.h>

#include <cstdint>

#include "ipc/Export.h"

namespace Kestrel::ipc {

// The readiness a handler waits for. Only READ, WRITE and PRIORITY have a
// meaning; any other value of the 32-bit type (0, 3, 5 and up) is accepted and
// asks for no event at all, so such a handler only ever sees error conditions.
enum class EventType : uint32_t {
    READ = 1,
    WRITE = 2,
    PRIORITY = 4,
};

// The poll(2) event mask for `type`: READ gives POLLIN, WRITE POLLOUT,
// PRIORITY POLLPRI, anything else 0. The one mapping used both to register a
// handler's descriptor and to check its readiness before dispatch.
inline short pollEventsOf(EventType type) {
    switch (type) {
        case EventType::READ:
            return POLLIN;
        case EventType::WRITE:
            return POLLOUT;
        case EventType::PRIORITY:
            return POLLPRI;
    }
    return 0;
}

class IPC_EXPORT EventHandler {
  public:
    EventHandler(int fd, EventType type) : mFd(fd), mType(type) {}
    virtual ~EventHandler() = default;

    // The descriptor to watch.
    int fd() const { return mFd; }
    // What to watch it for.
    EventType type() const { return mType; }

    // Called on the reactor's thread, with no reactor lock held, when fd() is
    // ready for type().
    virtual void handleEvent() = 0;

  private:
    const int mFd;
    const EventType mType;
};

}  // namespace Kestrel::ipc
