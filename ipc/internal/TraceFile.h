// The process's JSON trace file: trace events in the format that Perfetto's
// UI and the Chrome trace viewer open, appended with one write() each so that
// several processes can share one file. Library-internal; Tracing is its
// public face.
//
// The file is one JSON array. The process that creates the file writes its
// opening bracket and, when it finishes (Tracing::finish() or its exit), the
// closing one; every other process opens the existing file for appending and
// writes each event as ",\n{...}". Processes that share a file are therefore
// started after the creator has opened it (its children, say) and end before
// it finishes.
//
// Each traced piece of work is a complete event ("ph":"X") with the message's
// id, type and sizes; a send, receive, dispatch and reply callback also carry
// a flow event (start, step, end) whose id the message determines, so that a
// viewer draws an arrow from a send in one process to the receive and the
// dispatch in the other. Threads and the process are named by metadata
// events.
#pragma once

#include <ipc/utils/Mutex.h>

#include <string>
#include <vector>

#include "TraceEvent.h"

namespace Kestrel::ipc::observe {

class TraceFile {
  public:
    static TraceFile& instance();

    // Opens `path` as described above; false (errno set) when it cannot be
    // opened or one is open already.
    bool start(const char* path) IPC_EXCLUDES(mLock);
    // Closes the array if this process created the file, then the file.
    void finish() IPC_EXCLUDES(mLock);
    // Appends `event` (and its flow event) if a file is open.
    void write(const TraceEvent& event) IPC_EXCLUDES(mLock);
    // Names this process in the file (a later name replaces the one before).
    void nameProcess(const char* name) IPC_EXCLUDES(mLock);
    // Adds the open file's descriptor, if any, to `descriptors`: a process
    // that closes what it inherited keeps its trace.
    void keepOpen(std::vector<int>& descriptors) IPC_EXCLUDES(mLock);

  private:
    TraceFile() = default;
    void writeThreadName(int pid, int tid) IPC_REQUIRES_SHARED(mLock);
    void writeProcessName(const char* before, int pid, const char* name) IPC_REQUIRES_SHARED(mLock);

    utils::SharedMutex mLock;  // shared by writers, exclusive to open and close
    int mFd IPC_GUARDED_BY(mLock) = -1;
    bool mCreator IPC_GUARDED_BY(mLock) = false;
    int mPid IPC_GUARDED_BY(mLock) = 0;
};

}  // namespace Kestrel::ipc::observe
