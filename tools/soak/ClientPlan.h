// A client process of the soak: what the orchestrator told it to be, and what
// every role shares (the stop signal, the report written at exit).
#pragma once

#include <cstdint>

#include "SoakProtocol.h"

namespace velacam::soak {

struct ClientPlan {
    Role role;
    uint32_t slot;
    uint64_t seed;
    int socketFd;  // the client's end of its socket pair
    int reportFd;  // the write end of the orchestrator's report pipe
};

// SIGUSR1 asks a client to finish: stop sending, collect what is owed, report.
void installStopSignal();
bool stopRequested();

// A new report for `plan`, and its one write to the report pipe.
ClientReport newReport(const ClientPlan& plan);
void sendReport(const ClientPlan& plan, const ClientReport& report);
// Counts a broken promise of the server and keeps the first one's text.
void violation(ClientReport& report, const char* format, ...) __attribute__((format(printf, 2, 3)));

// The roles: request-and-reply clients (well-behaved, killed, stopped, 253
// descriptors, deaf) and the ones that speak the wire format themselves
// (half sender, staller, liar). Each returns the process's exit status.
int runRequester(const ClientPlan& plan);
int runRawFaults(const ClientPlan& plan);

}  // namespace velacam::soak
