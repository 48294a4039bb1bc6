// Records of the library's objects kept beside them, keyed by the object's
// address, so that no public class grows. Library-internal.
//
// A record is made the first time a hook of its object needs it and erased
// when the object is destroyed; an object made later at the same address
// starts with a fresh record. The hot hooks reach their record through a
// per-thread cache of the last one found, checked against a generation that
// every erasure moves on, so the table's lock is taken only on a miss.
// Readers (statistics, dumps) copy figures under the table's lock, which
// keeps the record alive meanwhile.
#pragma once

#include <ipc/utils/Mutex.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <new>
#include <unordered_map>

namespace Kestrel::ipc::observe {

template <typename Record>
class SideTable {
  public:
    // The one table of this kind of record, alive for the whole process.
    static SideTable& instance() {
        static SideTable* const sTable = new SideTable;
        return *sTable;
    }

    // The record of `owner`, made if needed; null only when memory ran out.
    // The caller is a hook of `owner`, which is alive throughout.
    Record* recordFor(const void* owner) IPC_EXCLUDES(mLock) {
        struct Cache {
            const void* owner = nullptr;
            uint64_t generation = 0;
            Record* record = nullptr;
        };
        thread_local Cache sCache;
        const uint64_t generation = mGeneration.load(std::memory_order_acquire);
        if (sCache.owner == owner && sCache.generation == generation) {
            return sCache.record;
        }
        Record* record = nullptr;
        {
            utils::LockGuard lock(mLock);
            std::unique_ptr<Record>& entry = mRecords[owner];
            if (!entry) {
                entry.reset(new (std::nothrow) Record);
            }
            record = entry.get();
        }
        sCache = Cache{owner, generation, record};
        return record;
    }

    // Calls `read(const Record&)` under the table's lock if `owner` has a
    // record; false otherwise.
    template <typename Read>
    bool read(const void* owner, Read&& read) IPC_EXCLUDES(mLock) {
        utils::LockGuard lock(mLock);
        const auto found = mRecords.find(owner);
        if (found == mRecords.end() || !found->second) {
            return false;
        }
        read(*found->second);
        return true;
    }

    // Erases the record of `owner` (its object is being destroyed).
    void forget(const void* owner) IPC_EXCLUDES(mLock) {
        std::unique_ptr<Record> erased;  // destroyed after the unlock
        {
            utils::LockGuard lock(mLock);
            const auto found = mRecords.find(owner);
            if (found == mRecords.end()) {
                return;
            }
            erased = std::move(found->second);
            mRecords.erase(found);
            mGeneration.fetch_add(1, std::memory_order_acq_rel);
        }
    }

  private:
    SideTable() = default;

    utils::Mutex mLock;
    std::unordered_map<const void*, std::unique_ptr<Record>> mRecords IPC_GUARDED_BY(mLock);
    std::atomic<uint64_t> mGeneration{1};
};

}  // namespace Kestrel::ipc::observe
