#include <ipc/CBRegistry.h>
#include <ipc/DefaultReactor.h>
#include <ipc/EventHandler.h>
#include <ipc/MessageLoop.h>
#include <ipc/SlowDispatchWarning.h>
#include <ipc/StateDump.h>
#include <ipc/Statistics.h>

#include <algorithm>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "internal/WriteAll.h"

namespace Kestrel::ipc {

namespace {

// printf into a growing report.
__attribute__((format(printf, 2, 3))) void append(std::string& report, const char* format, ...) {
    char line[256];
    va_list args;
    va_start(args, format);
    const int length = std::vsnprintf(line, sizeof(line), format, args);
    va_end(args);
    if (length > 0) {
        report.append(line, std::min(static_cast<size_t>(length), sizeof(line) - 1));
    }
}

double millis(std::chrono::nanoseconds duration) {
    return static_cast<double>(duration.count()) / 1e6;
}

int writeReport(int fd, const std::string& report) {
    return observe::writeAll(fd, report.data(), report.size());
}

const char* kindOf(const std::shared_ptr<EventHandler>& handler) {
    if (!handler) {
        return "gone";
    }
    switch (handler->type()) {
        case EventType::READ:
            return "read";
        case EventType::WRITE:
            return "write";
        case EventType::PRIORITY:
            return "priority";
    }
    return "errors only";
}

void appendCounting(std::string& report) {
    append(report, "  counting: %s\n", Statistics::enabled() ? "on" : "off");
}

// The first lines of an object's report: what it is, and whether counting is on.
std::string heading(const char* what, const void* object) {
    std::string report;
    append(report, "%s %p\n", what, object);
    appendCounting(report);
    return report;
}

void appendConnection(std::string& report, const char* indent, int socketFd) {
    const ConnectionStatistics c = Statistics::connection(socketFd);
    append(report,
           "%ssent %" PRIu64 " messages, %" PRIu64 " bytes, %" PRIu64 " fds; received %" PRIu64
           " messages, %" PRIu64 " bytes, %" PRIu64 " fds\n",
           indent, c.sentMessages, c.sentBytes, c.sentDescriptors, c.receivedMessages,
           c.receivedBytes, c.receivedDescriptors);
    append(report,
           "%srefused: %" PRIu64 " too many fds, %" PRIu64 " too large, %" PRIu64
           " would block, %" PRIu64 " timed out, %" PRIu64 " peer gone, %" PRIu64
           " not bound, %" PRIu64 " other\n",
           indent, c.refused[ConnectionStatistics::kTooManyDescriptors],
           c.refused[ConnectionStatistics::kTooLarge], c.refused[ConnectionStatistics::kWouldBlock],
           c.refused[ConnectionStatistics::kTimedOut], c.refused[ConnectionStatistics::kPeerGone],
           c.refused[ConnectionStatistics::kNotBound], c.refused[ConnectionStatistics::kOther]);
    append(report,
           "%sreceive failures %" PRIu64 ", payload waits ran out %" PRIu64 ", out of step %" PRIu64
           ", fds dropped %" PRIu64 ", largest record %" PRIu64 " bytes\n",
           indent, c.receiveFailures, c.payloadWaitsRanOut, c.outOfStep, c.descriptorsDropped,
           c.largestRecord);
}

}  // namespace

int StateDump::write(int fd, const DefaultReactor& constReactor) {
    auto& reactor = const_cast<DefaultReactor&>(constReactor);
    std::vector<std::pair<int, std::weak_ptr<EventHandler>>> registered;
    {
        utils::LockGuard lock(reactor.mMutex);
        registered.assign(reactor.mEventHandlers.begin(), reactor.mEventHandlers.end());
    }
    const ReactorStatistics figures = Statistics::of(reactor);
    std::string report = heading("DefaultReactor", &reactor);
    append(report,
           "  cycles %" PRIu64 ", dispatches %" PRIu64 ", hang-ups %" PRIu64
           ", longest handler run %.3f ms\n",
           figures.cycles, figures.dispatches, figures.hangUps, millis(figures.longestHandlerRun));
    append(report, "  registered handlers: %zu\n", registered.size());
    for (const auto& [key, weakHandler] : registered) {
        append(report, "    fd %d: %s\n", key, kindOf(weakHandler.lock()));
        appendConnection(report, "      ", key);
    }
    return writeReport(fd, report);
}

int StateDump::write(int fd, MessageLoop& loop) {
    const LoopStatistics figures = Statistics::of(loop);
    const std::chrono::milliseconds threshold = SlowDispatchWarning::thresholdOf(loop);
    std::string report = heading("MessageLoop", &loop);
    const uint64_t waiting =
            figures.enqueued > figures.dispatched ? figures.enqueued - figures.dispatched : 0;
    append(report,
           "  enqueued %" PRIu64 ", dispatched %" PRIu64 ", waiting %" PRIu64
           ", high-water %" PRIu64 "\n",
           figures.enqueued, figures.dispatched, waiting, figures.highWater);
    append(report, "  enqueue to dispatch: p50 %.3f ms, p99 %.3f ms, max %.3f ms\n",
           millis(figures.delayP50), millis(figures.delayP99), millis(figures.delayMax));
    if (threshold.count() > 0) {
        append(report, "  slow-dispatch warning at %lld ms\n",
               static_cast<long long>(threshold.count()));
    } else {
        append(report, "  slow-dispatch warning off\n");
    }
    return writeReport(fd, report);
}

int StateDump::write(int fd, const CBRegistry& constRegistry) {
    auto& registry = const_cast<CBRegistry&>(constRegistry);
    std::vector<uint32_t> pending;
    {
        utils::LockGuard lock(registry.mMutex);
        pending.reserve(registry.mCallbacks.size());
        for (const auto& entry : registry.mCallbacks) {
            pending.push_back(entry.first);
        }
    }
    std::sort(pending.begin(), pending.end());
    const RegistryStatistics figures = Statistics::of(registry);
    std::string report = heading("CBRegistry", &registry);
    append(report,
           "  registered %" PRIu64 ", replied %" PRIu64 ", pending %" PRIu64
           ", oldest pending %.3f ms\n",
           figures.registered, figures.replied, figures.pending, millis(figures.oldestPendingAge));
    append(report, "  callbacks waiting: %zu\n", pending.size());
    constexpr size_t kPerLine = 10;
    for (size_t i = 0; i < pending.size(); ++i) {
        append(report, "%s%" PRIu32, i % kPerLine == 0 ? "    ids " : " ", pending[i]);
        if (i % kPerLine == kPerLine - 1 || i + 1 == pending.size()) {
            report += '\n';
        }
    }
    return writeReport(fd, report);
}

int StateDump::writeConnection(int fd, int socketFd) {
    std::string report;
    append(report, "connection fd %d\n", socketFd);
    appendCounting(report);
    appendConnection(report, "  ", socketFd);
    return writeReport(fd, report);
}

}  // namespace Kestrel::ipc
