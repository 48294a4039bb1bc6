// Runs a soak: starts the server in this process and the clients as copies of
// this program, draws by the seed which misbehaviour each misbehaving slot
// plays and when it is killed or stopped, collects the clients' reports, and
// judges the run: every well-behaved request ended once, in order, within the
// bound; the server's descriptors and memory came back to their start.
#pragma once

#include "SoakOptions.h"
#include "SoakTally.h"

namespace velacam::soak {

// Runs the whole soak on the calling thread; fills `tally`. True when no
// promise was broken.
bool runSoak(const SoakOptions& options, SoakTally& tally);

}  // namespace velacam::soak
