// The switches of the library's observation (counters, trace markers, the
// slow-dispatch watch), read by every hook on the message path before it does
// anything else. Library-internal.
//
// Off, a hook costs one relaxed load of one byte and a branch (on Android a
// hook that traces also asks whether the platform's trace is capturing);
// everything else lives out of line, behind that test.
#pragma once

#include <atomic>
#include <cstdint>

namespace Kestrel::ipc::observe {

enum Switch : uint8_t {
    kCounters = 1u << 0,   // Statistics::enable()
    kTraceFile = 1u << 1,  // a JSON trace file is open
    kSlowWatch = 1u << 2,  // some loop watches for slow dispatches
};

// The switches now on. Written rarely (enable, start, watch), read by every hook.
extern std::atomic<uint8_t> gSwitches;

void turnOn(Switch which);
void turnOff(Switch which);

// Whether the platform's own trace (atrace, camera tag) is capturing now;
// false on a host.
#if defined(__ANDROID__)
bool platformTraceEnabled();
#else
constexpr bool platformTraceEnabled() { return false; }
#endif

// The switches of the hooks that only count or trace: the slow-dispatch watch
// times dispatches alone, so watching a loop leaves every other hook off.
inline constexpr uint8_t kCountOrTrace = kCounters | kTraceFile;

inline bool isOn(uint8_t which) {
    return __builtin_expect((gSwitches.load(std::memory_order_relaxed) & which) != 0, 0);
}

// Whether a hook that serves `which` has work: one of them is on, or the
// platform's trace is capturing.
inline bool anyOn(uint8_t which) { return isOn(which) || platformTraceEnabled(); }

}  // namespace Kestrel::ipc::observe
