// SlowDispatchWarning: tells, per MessageLoop that asks for it, of handlers
// that run longer than a threshold.
//
// Once a loop is watched, each dispatch is timed. The first dispatch that
// takes at least the threshold logs, at warning level under the loop's tag,
// "slow dispatch: message type %u took %.3f ms (threshold %.3f ms)"; the
// dispatches that follow it and are slow too log nothing (one line per
// episode, not per message); the first one under the threshold again logs
// "dispatch back under %.3f ms: %llu slow in a row, the slowest %.3f ms".
//
// Ownership: the setting lives beside the loop and goes with it. Thread: any;
// the lines are logged on the loop's thread. Failure: none.
// Cost: a watched loop reads the clock twice per dispatch; while any loop is
// watched, the others look their setting up once per dispatch (from a
// per-thread cache of the last loop: no lock while a thread serves one loop).
#pragma once

#include <chrono>

#include "ipc/Export.h"

namespace Kestrel::ipc {

class MessageLoop;

class IPC_EXPORT SlowDispatchWarning {
  public:
    // Watches `loop` with `threshold`; a threshold of 0 stops watching it.
    static void watch(MessageLoop& loop, std::chrono::milliseconds threshold);
    // The threshold `loop` is watched with; 0 when it is not watched.
    static std::chrono::milliseconds thresholdOf(MessageLoop& loop);
};

}  // namespace Kestrel::ipc
