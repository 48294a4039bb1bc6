// CpuPinning: keeps the calling thread (and the processes it forks) on one CPU
// for as long as the object lives, then gives back the CPUs it had.
//
// On a two-CPU virtual machine a wake that crosses CPUs costs tens of
// microseconds and hides every other cost of a round trip; pinning client and
// server to one CPU shows what the code itself costs. With `enabled` false the
// object does nothing, so a benchmark can take the figure both ways. `choice`
// picks among the CPUs the thread may use (0 the first, counting round), so
// that threads can be placed apart as well as together.
// Thread: the thread that constructs it must destroy it.
#pragma once

#include <sched.h>

namespace velacam::bench {

class CpuPinning {
  public:
    explicit CpuPinning(bool enabled, int choice = 0);
    ~CpuPinning();
    CpuPinning(const CpuPinning&) = delete;
    CpuPinning& operator=(const CpuPinning&) = delete;

    // False when pinning was asked for and the system refused it.
    bool ok() const { return mOk; }

  private:
    bool mPinned = false;
    bool mOk = true;
    cpu_set_t mPrevious;
};

}  // namespace velacam::bench
