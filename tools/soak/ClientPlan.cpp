#include "ClientPlan.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace velacam::soak {

namespace {

volatile sig_atomic_t gStop = 0;

void onStop(int) { gStop = 1; }

}  // namespace

void installStopSignal() {
    struct sigaction action {};
    action.sa_handler = onStop;
    sigemptyset(&action.sa_mask);
    ::sigaction(SIGUSR1, &action, nullptr);
}

bool stopRequested() { return gStop != 0; }

ClientReport newReport(const ClientPlan& plan) {
    ClientReport report{};
    report.magic = kRequestMagic;
    report.slot = plan.slot;
    report.role = plan.role;
    return report;
}

void sendReport(const ClientPlan& plan, const ClientReport& report) {
    // One write below PIPE_BUF: whole or not at all, never interleaved.
    while (::write(plan.reportFd, &report, sizeof(report)) < 0 && errno == EINTR) {
    }
}

void violation(ClientReport& report, const char* format, ...) {
    if (report.violations++ == 0) {
        va_list arguments;
        va_start(arguments, format);
        std::vsnprintf(report.firstViolation, sizeof(report.firstViolation), format, arguments);
        va_end(arguments);
    }
}

}  // namespace velacam::soak
