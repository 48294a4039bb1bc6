// Process: a process named by its id, and the children it has started.
//
// A Process value starts programs as its children (fork, then execvp), keeps
// them under observation in the order they were started, and stops them with
// SIGTERM. Nothing here reaps a child: waitpid and SIGCHLD belong to the owner.
// closeOpenFileDescriptors() is the clean-up a freshly forked child runs to
// drop every descriptor it inherited except the ones it needs.
//
// Ownership: a Process is a plain value; copying it copies the list of
// observed children (the ids, not the processes).
// Thread: no locking; a Process and its child list belong to one thread.
// Failure: logged at error level (tag "Process") and returned as Process(-1)
// or false; only impossible states in create() end the process.
//
// Compatibility: kept as existing callers rely on it. create() ignores
// `fdsToKeep`, and returns in the child too when exec fails. terminate() sends
// id 0 on (the whole process group). When terminateAllChildProcess() fails on
// a child, that child stays observed and the next one is forgotten without
// being terminated. closeOpenFileDescriptors() never closes descriptor 0.
// removeFromObservation()'s debug line names its function "operator()".
#pragma once

#include <list>
#include <string>
#include <vector>

#include "ipc/Export.h"

namespace Kestrel::ipc::utils {

class IPC_EXPORT Process {
  public:
    // The calling process.
    Process();
    // The process `pid`; -1 marks a process that could not be started.
    explicit Process(int pid);

    // Process(getpid()).
    static Process current();

    int pid() const { return mPid; }
    // The children under observation, oldest first.
    const std::list<Process>& children() const { return mChildren; }

    // Forks and runs `filename` (searched in PATH as execvp does) with the
    // argument vector filename, argv..., so `argv` holds only the further
    // arguments. In the parent: the child is observed and a copy of its entry
    // returned, or Process(-1) when fork failed. A child that must drop
    // inherited descriptors calls closeOpenFileDescriptors.
    // When exec fails it also returns in the child, as Process(-1), and the
    // child then runs the caller's code, which must end it (_exit). Tell the
    // two Process(-1) results apart by comparing getpid() with the caller's id.
    [[nodiscard]] Process create(const std::string& filename, const std::vector<std::string>& argv,
                                 const std::vector<int>& fdsToKeep);

    // Sends SIGTERM to this process and does not wait for it. Returns false for
    // a negative id or a failed kill.
    [[nodiscard]] bool terminate();

    // Terminates the observed children from the oldest and forgets each one
    // that was terminated. Returns false if any terminate() failed.
    [[nodiscard]] bool terminateAllChildProcess();

    // Stops observing every child whose id is `pid`; an unknown id is ignored.
    void removeFromObservation(int pid);

    // Closes every descriptor of the calling process listed in /proc/self/fd
    // except those in `fdsToKeep`, the listing's own and, while the process
    // writes a trace file (ipc/Tracing.h), that file's.
    // Meant for a single-threaded moment, such as a freshly forked child.
    static void closeOpenFileDescriptors(const std::vector<int>& fdsToKeep);

  private:
    int mPid;
    std::list<Process> mChildren;
};

}  // namespace Kestrel::ipc::utils
