#include "ObserveSwitches.h"

namespace Kestrel::ipc::observe {

std::atomic<uint8_t> gSwitches{0};

void turnOn(Switch which) { gSwitches.fetch_or(which, std::memory_order_relaxed); }

void turnOff(Switch which) {
    gSwitches.fetch_and(static_cast<uint8_t>(~which), std::memory_order_relaxed);
}

}  // namespace Kestrel::ipc::observe
