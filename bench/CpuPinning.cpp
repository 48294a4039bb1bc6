#include "CpuPinning.h"

namespace velacam::bench {

CpuPinning::CpuPinning(bool enabled, int choice) {
    CPU_ZERO(&mPrevious);
    if (!enabled) {
        return;
    }
    mOk = false;
    if (sched_getaffinity(0, sizeof(mPrevious), &mPrevious) != 0) {
        return;
    }
    // The `choice`-th CPU this thread may use: with the same choice, both
    // processes land on the same one.
    const int allowed = CPU_COUNT(&mPrevious);
    int skip = allowed > 0 ? choice % allowed : 0;
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (CPU_ISSET(cpu, &mPrevious) && skip-- == 0) {
            cpu_set_t one;
            CPU_ZERO(&one);
            CPU_SET(cpu, &one);
            mOk = sched_setaffinity(0, sizeof(one), &one) == 0;
            mPinned = mOk;
            return;
        }
    }
}

CpuPinning::~CpuPinning() {
    if (mPinned) {
        (void)sched_setaffinity(0, sizeof(mPrevious), &mPrevious);
    }
}

}  // namespace velacam::bench
