#include <ipc/CBRegistry.h>
#include <ipc/DefaultReactor.h>
#include <ipc/MessageLoop.h>
#include <ipc/Statistics.h>

#include <cstdlib>
#include <cstring>

#include "internal/ConnectionTable.h"
#include "internal/LoopRecord.h"
#include "internal/MonotonicClock.h"
#include "internal/ObserveSwitches.h"
#include "internal/ReactorRecord.h"
#include "internal/RegistryRecord.h"
#include "internal/SideTable.h"

namespace Kestrel::ipc {

using observe::SideTable;

namespace {
// Runs while the library is loaded: a process started with VELACAM_STATS=1
// counts from its first message on.
bool enableFromEnvironment() noexcept {
    const char* value = std::getenv("VELACAM_STATS");
    const bool on = value != nullptr && std::strcmp(value, "1") == 0;
    if (on) {
        Statistics::enable(true);
    }
    return on;
}
[[maybe_unused]] const bool sEnabledFromEnvironment = enableFromEnvironment();
}  // namespace

void Statistics::enable(bool on) {
    if (on) {
        observe::turnOn(observe::kCounters);
    } else {
        observe::turnOff(observe::kCounters);
    }
}

bool Statistics::enabled() { return observe::isOn(observe::kCounters); }

ConnectionStatistics Statistics::connection(int fd) {
    const observe::ConnectionSlot* slot = observe::ConnectionTable::find(fd);
    return slot != nullptr ? slot->copy() : ConnectionStatistics{};
}

ReactorStatistics Statistics::of(const DefaultReactor& reactor) {
    ReactorStatistics figures;
    SideTable<observe::ReactorRecord>::instance().read(
            &reactor, [&figures](const observe::ReactorRecord& record) {
                figures.cycles = record.cycles.load(std::memory_order_relaxed);
                figures.dispatches = record.dispatches.load(std::memory_order_relaxed);
                figures.hangUps = record.hangUps.load(std::memory_order_relaxed);
                figures.longestHandlerRun = std::chrono::nanoseconds(
                        record.longestRunNs.load(std::memory_order_relaxed));
            });
    return figures;
}

LoopStatistics Statistics::of(MessageLoop& loop) {
    LoopStatistics figures;
    SideTable<observe::LoopRecord>::instance().read(
            &loop.messageQueue(),
            [&figures](const observe::LoopRecord& record) { figures = record.figures(); });
    return figures;
}

RegistryStatistics Statistics::of(const CBRegistry& registry) {
    RegistryStatistics figures;
    const int64_t now = observe::monotonicNanoseconds();
    SideTable<observe::RegistryRecord>::instance().read(
            &registry, [&figures, now](const observe::RegistryRecord& record) {
                figures = record.figures(now);
            });
    return figures;
}

}  // namespace Kestrel::ipc
