// velacam_soak: a chaos soak of the library. One serving process, clients
// that behave and clients that misbehave by the seed; see SoakOptions.h for
// the command line and Orchestrator.h for what is judged.
#include <ipc/utils/Process.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "ClientPlan.h"
#include "Orchestrator.h"
#include "SoakOptions.h"

using namespace velacam::soak;

int main(int argc, char** argv) {
    const CommandLine command = parseCommandLine(argc, argv);
    if (command.client) {
        const ClientPlan& plan = *command.client;
        // Keep only the standard streams, the socket and the report pipe.
        Kestrel::ipc::utils::Process::closeOpenFileDescriptors(
                {0, 1, 2, plan.socketFd, plan.reportFd});
        installStopSignal();
        return plan.role == Role::kHalfSender || plan.role == Role::kStaller ||
                               plan.role == Role::kLiar
                       ? runRawFaults(plan)
                       : runRequester(plan);
    }
    if (!command.soak) {
        return command.exitStatus;
    }
    // Faults planted by a preloaded interposer (scripts/syscall-faults) are
    // meant for the server: the clients, which judge it, start without it.
    ::unsetenv("LD_PRELOAD");
    SoakOptions options = *command.soak;
    if (!options.seedGiven) {
        options.seed =
                static_cast<uint64_t>(std::chrono::system_clock::now().time_since_epoch().count());
    }
    std::printf("soak: seed %llu (replay with --seed %llu)\n",
                static_cast<unsigned long long>(options.seed),
                static_cast<unsigned long long>(options.seed));
    std::fflush(stdout);
    SoakTally tally;
    const bool held = runSoak(options, tally);
    std::printf("\n");
    tally.print(stdout);
    return held ? 0 : 1;
}
