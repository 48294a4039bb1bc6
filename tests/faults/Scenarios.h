// The library's transport and reactor exercised under whatever faults the
// preloaded interposer plants. Each scenario prints one summary line and
// returns 0 when the contract held (ContractJudge), 1 otherwise.
#pragma once

#include <cstdint>

namespace velacam::faults {

// Messages sent one by one and in bursts of three over a socket pair,
// received with UnixDomainSocket::recv; a connection left unusable is
// replaced.
int transportScenario(uint32_t messages);

// The same messages received by a SocketEventHandler on a DefaultReactor's
// thread; then requestExit() must end the loop within 5 s.
int reactorScenario(uint32_t messages);

}  // namespace velacam::faults
