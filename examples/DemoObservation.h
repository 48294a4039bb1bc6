// What --trace FILE and --stats add to the demo.
//
// --trace FILE: the camera process starts the library's JSON trace file
// before it starts the algorithm process, which inherits VELACAM_TRACE and
// appends its own events to the same file; once the algorithm process has
// ended, the camera closes the file. Perfetto's UI and chrome://tracing open
// it.
// --stats: both processes count (the algorithm inherits VELACAM_STATS=1) and
// print the state dump of their end of the socket, and of the algorithm's
// reactor and loop, when they end: the algorithm's first, then the camera's.
#pragma once

#include <string>

namespace Kestrel::ipc {
class DefaultReactor;
class MessageLoop;
}  // namespace Kestrel::ipc

namespace demo {

struct ObservationOptions {
    std::string traceFile;  // empty: no trace
    bool stats = false;
};

// In the camera process, before the algorithm process starts. False, with a
// message on standard error, when the trace file cannot be started.
bool startObservation(const ObservationOptions& options);

// In the camera process, once the algorithm process has ended.
void finishObservation(const ObservationOptions& options);

// The dumps of one side, under a heading naming it: its end of the socket,
// then its reactor and loop where it has them (null where not); nothing
// unless counting is on.
void printStatistics(const char* side, int socketFd, const Kestrel::ipc::DefaultReactor* reactor,
                     Kestrel::ipc::MessageLoop* loop);

}  // namespace demo
