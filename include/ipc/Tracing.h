// Tracing: trace markers around each send, receive, handler run, dispatch,
// reply callback (CBRegistry) and reply handed to its call (RequestChannel),
// carrying the message's id and type.
//
// On Android the markers are atrace slices under the camera tag: they appear
// in a system trace (Perfetto, systrace) beside the rest of the camera stack
// whenever the camera category is captured; nothing needs to be called.
//
// On any system the same events can go to a file in the JSON trace event
// format, which Perfetto's UI (ui.perfetto.dev) and the Chrome trace viewer
// (chrome://tracing) open: start() it, or set the environment variable
// VELACAM_TRACE to the file's path before the process starts (the library
// then starts it while it is loaded). Each send starts a flow that the
// receive in the other process continues and its dispatch, reply callback or
// reply to its call ends, so the viewer draws one arrow through a message's life; a request and
// its reply, which share an id, make two flows.
//
// Several processes may write one file: the one that creates it writes the
// opening of the JSON array, the others append to it, each event with one
// write(). Start the others after the creator (its children, which inherit
// VELACAM_TRACE, are) and let them end before it: the creator closes the array
// when it calls finish() or exits. Until then the file is not yet valid JSON.
//
// The file's descriptor is the library's: Process::closeOpenFileDescriptors()
// keeps it open; code that closes descriptors it did not open otherwise calls
// finish() first.
//
// Thread: any. Failure: start() returns false with errno set; events that
// cannot be written are lost silently.
// Cost: off, one load and a branch per hook (with the platform's enabled
// check on Android). On, per event two clock reads, a formatted line of about
// 300 bytes and one write(): about 4,400 instructions (docs/performance.md).
#pragma once

#include "ipc/Export.h"

namespace Kestrel::ipc {

class IPC_EXPORT Tracing {
  public:
    // Starts writing events to the file at `path` (see above). False when a
    // file is open already (EBUSY) or `path` cannot be opened.
    static bool start(const char* path);
    // Stops writing; closes the JSON array if this process created the file.
    static void finish();
    // Names this process in the file, if one is open (by default it bears
    // the name of its program).
    static void nameProcess(const char* name);
    // Whether events go to a file now.
    static bool toFile();
};

}  // namespace Kestrel::ipc
