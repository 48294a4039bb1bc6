#include <ipc/CountingSemaphore.h>
#include <ipc/Message.h>
#include <ipc/MessageTable.h>
#include <ipc/utils/Log.h>

#include "internal/DroppedMessage.h"

namespace Kestrel::ipc {

namespace {
constexpr utils::LogSite kLogSite{"MessageTable", "ipc/MessageTable", utils::kLogModuleSync};
}  // namespace

MessageTable::MessageTable(unsigned long waiterCount)
    : mSemaphore(std::make_unique<CountingSemaphore>(static_cast<int>(waiterCount))),
      mWaiterCount(waiterCount) {}

MessageTable::~MessageTable() {
    for (auto& entry : mTable) {
        dropMessages(entry.second);
    }
}

void MessageTable::update(std::unique_ptr<Message> message) {
    const uint32_t id = message->id();
    {
        utils::LockGuard lock(mMutex);
        mTable[id].push_back(std::move(message));
    }
    mSemaphore->release(1);
    IPC_LOGD("[%s] Release Semaphore of MessageTable", __func__);
}

bool MessageTable::wait() {
    IPC_LOGD("[%s] Block to wait for signal", __func__);
    mSemaphore->acquire();
    IPC_LOGD("[%s] Being signaled", __func__);
    if (mExiting.load(std::memory_order_acquire)) {
        IPC_LOGW("MessageTable is exiting");
        return false;
    }
    IPC_LOGD("[%s] Extract next entry from MessageTable", __func__);
    return true;
}

bool MessageTable::extract(std::list<std::unique_ptr<Message>>& out) {
    utils::LockGuard lock(mMutex);
    if (mTable.empty()) {
        return false;
    }
    const auto entry = mTable.begin();
    IPC_LOGD("[%s] extracting entry from message table,sizeof map=%zu, msgID=%d, sizeof list=%zu",
             __func__, mTable.size(), static_cast<int>(entry->first), entry->second.size());
    // What `out` held was handed out before: destroyed, its descriptors left
    // to whoever took them.
    out = std::move(entry->second);
    mTable.erase(entry);
    return true;
}

bool MessageTable::isEmpty() {
    utils::LockGuard lock(mMutex);
    return mTable.empty();
}

void MessageTable::notify() { mCond.notify_all(); }

void MessageTable::requestExit() {
    mExiting.store(true, std::memory_order_release);
    mSemaphore->release(static_cast<int>(mWaiterCount));
    IPC_LOGD("[%s] Release Semaphore of MessageTable", __func__);
}

}  // namespace Kestrel::ipc
