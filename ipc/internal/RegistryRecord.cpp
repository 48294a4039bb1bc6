#include "RegistryRecord.h"

#include <algorithm>
#include <new>

namespace Kestrel::ipc::observe {

void RegistryRecord::registered(uint32_t id, int64_t nowNs) {
    utils::LockGuard lock(mLock);
    try {
        if (mPendingSince.try_emplace(id, nowNs).second) {
            ++mRegistered;
        }
    } catch (const std::bad_alloc&) {
        // This one goes uncounted.
    }
}

void RegistryRecord::replied(uint32_t id) {
    utils::LockGuard lock(mLock);
    if (mPendingSince.erase(id) != 0) {
        ++mReplied;
    }
}

RegistryStatistics RegistryRecord::figures(int64_t nowNs) const {
    RegistryStatistics figures;
    utils::LockGuard lock(mLock);
    figures.registered = mRegistered;
    figures.replied = mReplied;
    figures.pending = mPendingSince.size();
    int64_t oldest = nowNs;
    for (const auto& [id, since] : mPendingSince) {
        oldest = std::min(oldest, since);
    }
    figures.oldestPendingAge = std::chrono::nanoseconds(nowNs - oldest);
    return figures;
}

}  // namespace Kestrel::ipc::observe
