// Reaping a child of the demo within a time limit.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>

namespace demo {

// The wait status of child `pid` once it ends within `limit`; nullopt when it
// did not (it is then killed with SIGKILL and reaped) or is not a child of
// this process.
std::optional<int> waitForChild(pid_t pid, std::chrono::steady_clock::duration limit);

}  // namespace demo
