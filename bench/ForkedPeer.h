// ForkedPeer: the serving side of a cross-process benchmark, run in a child
// made with fork().
//
// The child runs `body` and ends with _exit(its result), so it never returns
// into the benchmark framework or runs the parent's exit handlers. The parent
// keeps the object and calls join() once the child has been told to stop;
// the wait is bounded (10 s), after which the child is killed, so a lost stop
// request fails a benchmark instead of hanging the run.
// Thread: fork from a process whose other threads hold no lock the child
// needs (the benchmarks fork from the main thread with no worker running).
#pragma once

#include <sys/types.h>

#include <functional>

namespace velacam::bench {

class ForkedPeer {
  public:
    explicit ForkedPeer(const std::function<int()>& body);
    ~ForkedPeer();
    ForkedPeer(const ForkedPeer&) = delete;
    ForkedPeer& operator=(const ForkedPeer&) = delete;

    // False when fork() failed.
    bool started() const { return mPid > 0; }

    // Waits for the child; true when it exited with status 0 in time.
    bool join();

    // The child's minor page faults so far (from /proc/PID/stat), or -1 when
    // it is not running or cannot be read.
    long minorFaults() const;

  private:
    pid_t mPid = -1;
};

}  // namespace velacam::bench
