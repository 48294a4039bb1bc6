// Console helpers for interactive test programs.
//
// navigator() pauses a command-line tool between stages: it prints a prompt
// naming the process and waits for the Enter key, so that another process (a
// child, a debugger) can be attached to or observed before the tool goes on.
//
// Thread: whichever thread owns the console; it blocks that thread on
// standard input. Failure: none reported; end of input also lets it return.
//
// Compatibility: navigator() takes its message by value, as the exported
// symbol always has.
#pragma once

#include <string>

#include "ipc/Export.h"

namespace Kestrel::CommandLineUtils {

// Writes "[----------] PID(<pid>) Press ENTER to <message>..." and a newline
// to standard output, flushes, then reads one character from standard input
// (ignored) and returns.
// Blocks: until a character or end of input arrives.
IPC_EXPORT void navigator(std::string message);

}  // namespace Kestrel::CommandLineUtils
