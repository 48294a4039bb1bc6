#include "Observation.h"

#include <errno.h>
#include <ipc/Message.h>
#include <poll.h>

#include <algorithm>
#include <cstring>

#include "ConnectionTable.h"
#include "LoopRecord.h"
#include "MonotonicClock.h"
#include "PlatformTrace.h"
#include "ReactorRecord.h"
#include "RegistryRecord.h"
#include "SideTable.h"
#include "TraceFile.h"

namespace Kestrel::ipc::observe {

namespace {

constexpr int kOutOfStep = -ECONNABORTED;

// The connection whose receive runs on this thread, for descriptors it drops.
thread_local ConnectionSlot* tReceiving = nullptr;

TracedMessage tracedOf(const Message& message) {
    const auto [header, size] = message.header();
    TracedMessage traced;
    if (header == nullptr || size < Message::kHeaderSize) {
        return traced;
    }
    uint16_t descriptors = 0;
    std::memcpy(&traced.id, header, sizeof(uint32_t));
    std::memcpy(&traced.type, header + 4, sizeof(uint32_t));
    std::memcpy(&traced.flags, header + 8, sizeof(uint32_t));
    std::memcpy(&traced.dataBytes, header + 12, sizeof(uint32_t));
    std::memcpy(&descriptors, header + 16, sizeof(uint16_t));
    traced.descriptors = descriptors;
    return traced;
}

ConnectionSlot* countedSlot(int fd) {
    return isOn(kCounters) ? ConnectionTable::slotFor(fd) : nullptr;
}

void add(std::atomic<uint64_t>& figure, uint64_t amount) {
    figure.fetch_add(amount, std::memory_order_relaxed);
}

void raise(std::atomic<int64_t>& figure, int64_t value) {
    int64_t current = figure.load(std::memory_order_relaxed);
    while (value > current &&
           !figure.compare_exchange_weak(current, value, std::memory_order_relaxed)) {
    }
}

size_t refusalOf(int result) {
    switch (-result) {
        case EINVAL:
            return ConnectionStatistics::kTooManyDescriptors;
        case EMSGSIZE:
            return ConnectionStatistics::kTooLarge;
        case EAGAIN:
            return ConnectionStatistics::kWouldBlock;
        case ETIMEDOUT:
            return ConnectionStatistics::kTimedOut;
        case EPIPE:
        case ECONNRESET:
            return ConnectionStatistics::kPeerGone;
        case ENOENT:
            return ConnectionStatistics::kNotBound;
        default:
            return ConnectionStatistics::kOther;
    }
}

// A message's header went without its payload (`error`: errno after the call).
void lostStep(ConnectionSlot& slot, int error) {
    add(slot.outOfStep, 1);
    if (error == ETIMEDOUT) {
        add(slot.payloadWaitsRanOut, 1);
    }
}

void traceToFile(TraceKind kind, int64_t beginNs, int64_t endNs, int fd, int result,
                 const TracedMessage* message) {
    if (!isOn(kTraceFile)) {
        return;
    }
    TraceEvent event{kind, beginNs, endNs, fd, result, message != nullptr, {}};
    if (message != nullptr) {
        event.message = *message;
    }
    TraceFile::instance().write(event);
}

bool tracing() { return anyOn(kTraceFile); }

// Whether the loop of `queue` is watched for slow dispatches.
bool watched(const void* queue) {
    const LoopRecord* record = SideTable<LoopRecord>::instance().recordFor(queue);
    return record != nullptr && record->slowThresholdNs() > 0;
}

}  // namespace

int sendSlow(int fd, const Message& message, Body body, void* context) {
    const bool traced = tracing();
    const TracedMessage sent = tracedOf(message);
    const int64_t beginNs = traced ? monotonicNanoseconds() : 0;
    platformBegin(TraceKind::kSend, &sent);
    const int result = body(context);
    const int error = errno;
    platformEnd(TraceKind::kSend, &sent);
    if (ConnectionSlot* slot = countedSlot(fd)) {
        if (result == 0) {
            add(slot->sentMessages, 1);
            add(slot->sentBytes, sent.dataBytes);
            add(slot->sentDescriptors, sent.descriptors);
            slot->noteLargest(sent.dataBytes);
        } else if (result == kOutOfStep) {
            lostStep(*slot, error);
        } else {
            add(slot->refused[refusalOf(result)], 1);
        }
    }
    if (traced) {
        traceToFile(TraceKind::kSend, beginNs, monotonicNanoseconds(), fd, result, &sent);
    }
    errno = error;
    return result;
}

int receiveSlow(int fd, Message* message, Body body, void* context) {
    const bool traced = tracing();
    const int64_t beginNs = traced ? monotonicNanoseconds() : 0;
    platformBegin(TraceKind::kReceive, nullptr);
    ConnectionSlot* const slot = countedSlot(fd);
    tReceiving = slot;
    const int result = body(context);
    const int error = errno;
    tReceiving = nullptr;
    const TracedMessage received = result == 0 ? tracedOf(*message) : TracedMessage{};
    platformEnd(TraceKind::kReceive, result == 0 ? &received : nullptr);
    if (slot != nullptr) {
        if (result == 0) {
            add(slot->receivedMessages, 1);
            add(slot->receivedBytes, received.dataBytes);
            add(slot->receivedDescriptors, received.descriptors);
            slot->noteLargest(received.dataBytes);
        } else if (result != -EAGAIN) {
            add(slot->receiveFailures, 1);
            if (result == kOutOfStep) {
                lostStep(*slot, error);
            }
        }
    }
    if (traced) {
        traceToFile(TraceKind::kReceive, beginNs, monotonicNanoseconds(), fd, result,
                    result == 0 ? &received : nullptr);
    }
    errno = error;
    return result;
}

void droppedSlow(size_t count) {
    if (tReceiving != nullptr) {
        add(tReceiving->descriptorsDropped, count);
    }
}

void bound(int fd) { ConnectionTable::reset(fd); }

void cycleSlow(const void* reactor) {
    if (ReactorRecord* record = SideTable<ReactorRecord>::instance().recordFor(reactor)) {
        add(record->cycles, 1);
    }
}

void hangUpSlow(const void* reactor, short revents) {
    if ((revents & POLLHUP) == 0) {
        return;
    }
    if (ReactorRecord* record = SideTable<ReactorRecord>::instance().recordFor(reactor)) {
        add(record->hangUps, 1);
    }
}

void enqueuedSlow(const void* queue, const Message* message) {
    if (LoopRecord* record = SideTable<LoopRecord>::instance().recordFor(queue)) {
        record->enqueued(message, monotonicNanoseconds());
    }
}

void registeredSlow(const void* registry, const Message& message) {
    if (RegistryRecord* record = SideTable<RegistryRecord>::instance().recordFor(registry)) {
        record->registered(tracedOf(message).id, monotonicNanoseconds());
    }
}

void forgetReactor(const void* reactor) { SideTable<ReactorRecord>::instance().forget(reactor); }
void forgetQueue(const void* queue) { SideTable<LoopRecord>::instance().forget(queue); }
void forgetRegistry(const void* registry) {
    SideTable<RegistryRecord>::instance().forget(registry);
}

void HandlerRunScope::begin(const void* reactor, int fd) {
    mActive = true;
    mReactor = reactor;
    mFd = fd;
    mBeginNs = monotonicNanoseconds();
    platformBegin(TraceKind::kHandlerRun, nullptr);
}

void HandlerRunScope::end() {
    const int64_t endNs = monotonicNanoseconds();
    platformEnd(TraceKind::kHandlerRun, nullptr);
    if (isOn(kCounters)) {
        if (ReactorRecord* record = SideTable<ReactorRecord>::instance().recordFor(mReactor)) {
            add(record->dispatches, 1);
            raise(record->longestRunNs, endNs - mBeginNs);
        }
    }
    traceToFile(TraceKind::kHandlerRun, mBeginNs, endNs, mFd, 0, nullptr);
}

void DispatchScope::begin(const void* queue, const Message& message) {
    // With only the watch on, a loop nobody watches is not timed.
    if (!anyOn(kCountOrTrace) && !watched(queue)) {
        return;
    }
    mActive = true;
    mQueue = queue;
    mMessage = tracedOf(message);
    mBeginNs = monotonicNanoseconds();
    platformBegin(TraceKind::kDispatch, &mMessage);
    if (isOn(kCounters)) {
        if (LoopRecord* record = SideTable<LoopRecord>::instance().recordFor(queue)) {
            record->taken(&message, mBeginNs);
        }
    }
}

void DispatchScope::end() {
    const int64_t endNs = monotonicNanoseconds();
    platformEnd(TraceKind::kDispatch, &mMessage);
    if (isOn(kSlowWatch)) {
        if (LoopRecord* record = SideTable<LoopRecord>::instance().recordFor(mQueue)) {
            record->dispatched(mMessage.type, endNs - mBeginNs);
        }
    }
    traceToFile(TraceKind::kDispatch, mBeginNs, endNs, -1, 0, &mMessage);
}

void ReplyScope::begin(const void* registry, const Message& reply, TraceKind kind) {
    mActive = true;
    mKind = kind;
    mMessage = tracedOf(reply);
    mBeginNs = monotonicNanoseconds();
    platformBegin(kind, &mMessage);
    // A reply without a status byte is refused and its callback kept.
    if (kind == TraceKind::kReplyCallback && isOn(kCounters) && mMessage.dataBytes != 0) {
        if (RegistryRecord* record = SideTable<RegistryRecord>::instance().recordFor(registry)) {
            record->replied(mMessage.id);
        }
    }
}

void ReplyScope::end() {
    const int64_t endNs = monotonicNanoseconds();
    platformEnd(mKind, &mMessage);
    traceToFile(mKind, mBeginNs, endNs, -1, 0, &mMessage);
}

}  // namespace Kestrel::ipc::observe
