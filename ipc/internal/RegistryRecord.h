// The figures of one CBRegistry, kept beside it: which ids wait for a reply
// and since when. Library-internal.
#pragma once

#include <ipc/Statistics.h>
#include <ipc/utils/Mutex.h>

#include <cstdint>
#include <unordered_map>

namespace Kestrel::ipc::observe {

class RegistryRecord {
  public:
    // A callback for `id` is being registered at `nowNs`; the first one for
    // an id is kept, as the registry keeps it. Thread: any.
    void registered(uint32_t id, int64_t nowNs) IPC_EXCLUDES(mLock);
    // A reply for `id` carrying a status is being handed over: its callback,
    // if one is registered, is called. Thread: any.
    void replied(uint32_t id) IPC_EXCLUDES(mLock);

    RegistryStatistics figures(int64_t nowNs) const IPC_EXCLUDES(mLock);

  private:
    mutable utils::Mutex mLock;
    std::unordered_map<uint32_t, int64_t> mPendingSince IPC_GUARDED_BY(mLock);
    uint64_t mRegistered IPC_GUARDED_BY(mLock) = 0;
    uint64_t mReplied IPC_GUARDED_BY(mLock) = 0;
};

}  // namespace Kestrel::ipc::observe
