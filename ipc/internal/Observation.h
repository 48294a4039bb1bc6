// The hooks through which the message path reports to the library's
// observation: counters (Statistics), trace markers (Tracing, atrace) and the
// slow-dispatch watch. Library-internal.
//
// Each hook is one line at the entry or exit of the operation it observes.
// Off, it costs what ObserveSwitches.h says (a load and a branch); the work
// is done out of line, and only while a switch the hook serves is on: the
// hooks that only count test the counters alone, and only the dispatch's
// hook wakes for the slow-dispatch watch.
#pragma once

#include <cstddef>
#include <cstdint>

#include "ObserveSwitches.h"
#include "TraceEvent.h"

namespace Kestrel::ipc {
class Message;
}

namespace Kestrel::ipc::observe {

using Body = int (*)(void* context);

int sendSlow(int fd, const Message& message, Body body, void* context);
int receiveSlow(int fd, Message* message, Body body, void* context);
void droppedSlow(size_t count);
void cycleSlow(const void* reactor);
void hangUpSlow(const void* reactor, short revents);
void enqueuedSlow(const void* queue, const Message* message);
void registeredSlow(const void* registry, const Message& message);

// Sends `message` on `fd` with `(socket->*sendRecords)(message)`, counting
// and tracing it. Off, this is the call itself behind one test.
template <typename Socket>
int send(Socket* socket, int (Socket::*sendRecords)(const Message&), int fd,
         const Message& message) {
    if (!anyOn(kCountOrTrace)) {
        return (socket->*sendRecords)(message);
    }
    struct Call {
        Socket* socket;
        int (Socket::*member)(const Message&);
        const Message& message;
    } call{socket, sendRecords, message};
    return sendSlow(
            fd, message,
            [](void* context) {
                Call& c = *static_cast<Call*>(context);
                return (c.socket->*c.member)(c.message);
            },
            &call);
}

// Receives into `message` on `fd` with `(socket->*receiveRecords)(message)`,
// counting and tracing it.
template <typename Socket>
int receive(Socket* socket, int (Socket::*receiveRecords)(Message*), int fd, Message* message) {
    if (!anyOn(kCountOrTrace)) {
        return (socket->*receiveRecords)(message);
    }
    struct Call {
        Socket* socket;
        int (Socket::*member)(Message*);
        Message* message;
    } call{socket, receiveRecords, message};
    return receiveSlow(
            fd, message,
            [](void* context) {
                Call& c = *static_cast<Call*>(context);
                return (c.socket->*c.member)(c.message);
            },
            &call);
}

// A receive closed `count` descriptors that came instead of handing them over.
inline void dropped(size_t count) {
    if (count != 0 && isOn(kCounters)) {
        droppedSlow(count);
    }
}

// A socket was bound to `fd`: its counters start from zero.
void bound(int fd);

// A reactor's wait returned ready descriptors.
inline void cycle(const void* reactor) {
    if (isOn(kCounters)) {
        cycleSlow(reactor);
    }
}

// A reactor saw error flags on a handler's descriptor.
inline void hangUp(const void* reactor, short revents) {
    if (isOn(kCounters)) {
        hangUpSlow(reactor, revents);
    }
}

// A message is about to be queued on `queue`.
inline void enqueued(const void* queue, const Message* message) {
    if (isOn(kCounters)) {
        enqueuedSlow(queue, message);
    }
}

// A reply callback is about to be registered.
inline void registered(const void* registry, const Message& message) {
    if (isOn(kCounters)) {
        registeredSlow(registry, message);
    }
}

// An object with a record beside it is being destroyed.
void forgetReactor(const void* reactor);
void forgetQueue(const void* queue);
void forgetRegistry(const void* registry);

// Observes a reactor's call of one handler, from construction to the end of
// the scope.
class HandlerRunScope {
  public:
    HandlerRunScope(const void* reactor, int fd) {
        if (anyOn(kCountOrTrace)) {
            begin(reactor, fd);
        }
    }
    ~HandlerRunScope() {
        if (mActive) {
            end();
        }
    }
    HandlerRunScope(const HandlerRunScope&) = delete;
    HandlerRunScope& operator=(const HandlerRunScope&) = delete;

  private:
    void begin(const void* reactor, int fd);
    void end();

    bool mActive = false;
    const void* mReactor = nullptr;
    int mFd = -1;
    int64_t mBeginNs = 0;
};

// Observes a loop's dispatch of one message taken from `queue`, from
// construction to the end of the scope.
class DispatchScope {
  public:
    DispatchScope(const void* queue, const Message& message) {
        if (anyOn(kCountOrTrace | kSlowWatch)) {
            begin(queue, message);
        }
    }
    ~DispatchScope() {
        if (mActive) {
            end();
        }
    }
    DispatchScope(const DispatchScope&) = delete;
    DispatchScope& operator=(const DispatchScope&) = delete;

  private:
    void begin(const void* queue, const Message& message);
    void end();

    bool mActive = false;
    const void* mQueue = nullptr;
    TracedMessage mMessage;
    int64_t mBeginNs = 0;
};

// Observes the hand-over of one reply: by a registry to its callback
// (counted), or by a request channel to its waiting call (traced only), from
// construction to the end of the scope.
class ReplyScope {
  public:
    ReplyScope(const void* registry, const Message& reply,
               TraceKind kind = TraceKind::kReplyCallback) {
        if (anyOn(kind == TraceKind::kReplyCallback ? kCountOrTrace : uint8_t{kTraceFile})) {
            begin(registry, reply, kind);
        }
    }
    ~ReplyScope() {
        if (mActive) {
            end();
        }
    }
    ReplyScope(const ReplyScope&) = delete;
    ReplyScope& operator=(const ReplyScope&) = delete;

  private:
    void begin(const void* registry, const Message& reply, TraceKind kind);
    void end();

    bool mActive = false;
    TraceKind mKind = TraceKind::kReplyCallback;
    TracedMessage mMessage;
    int64_t mBeginNs = 0;
};

}  // namespace Kestrel::ipc::observe
