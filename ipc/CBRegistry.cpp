#include <ipc/CBRegistry.h>
#include <ipc/CountingSemaphore.h>
#include <ipc/Message.h>
#include <ipc/utils/Log.h>

#include "internal/DroppedMessage.h"
#include "internal/Observation.h"

namespace Kestrel::ipc {

namespace {
constexpr utils::LogSite kLogSite{"CBRegistry", "ipc/CBRegistry", utils::kLogModuleSync};
}  // namespace

CBRegistry::CBRegistry(unsigned long waiterCount) : mWaiterCount(waiterCount) {
    // Made here, not in the initialiser list: the list reads mWaiterCount,
    // which is declared after it.
    mCBList = std::make_unique<CBList>(*this);
}

CBRegistry::~CBRegistry() {
    observe::forgetRegistry(this);
    mCallbacks.clear();
}

void CBRegistry::registerCB(const Message& message, const std::function<void(uint8_t)>& callback) {
    observe::registered(this, message);
    const uint32_t id = message.id();
    utils::LockGuard lock(mMutex);
    if (!mCallbacks.try_emplace(id, callback).second) {
        IPC_LOGE("CB has registered, ERROR with msgID=%u", id);
    }
}

void CBRegistry::unRegisterCB(std::unique_ptr<Message> message) {
    const observe::ReplyScope observed(this, *message);
    const Message::Payload payload = message->payload();
    const uint32_t id = message->id();
    if (payload.data.empty()) {
        IPC_LOGE("CB status is missing, ERROR with msgID=%u", id);
        dropMessage(std::move(message));
        return;
    }
    const uint8_t status = payload.data.front();
    std::function<void(uint8_t)> callback;
    bool registered = false;
    {
        utils::LockGuard lock(mMutex);
        const auto entry = mCallbacks.find(id);
        registered = entry != mCallbacks.end();
        if (!registered) {
            IPC_LOGE("CB has not registered, ERROR with msgID=%u", id);
        } else {
            IPC_LOGD("[%s] CB unRegistered, msgID=%u, msgPtr:%p, status:%d", __func__, id,
                     static_cast<void*>(message.get()), static_cast<int>(status));
            callback = std::move(entry->second);
            mCallbacks.erase(entry);
        }
    }
    // The callback sees only the status: the reply and its descriptors are
    // done with, whether or not anyone waited for them.
    dropMessage(std::move(message));
    if (registered) {
        callback(status);
    }
}

void CBRegistry::updateCBList(std::unique_ptr<Message> message) {
    mCBList->update(std::move(message));
}

bool CBRegistry::extractCBList(std::unique_ptr<Message>& out) { return mCBList->extract(out); }

bool CBRegistry::isEmptyCBList() { return mCBList->isEmpty(); }

void CBRegistry::requestExit() { mCBList->requestExit(); }

void CBRegistry::notifyCB() { mCBList->notify(); }

bool CBRegistry::waitCB() { return mCBList->wait(); }

CBRegistry::CBList::CBList(CBRegistry& registry)
    : mRegistry(registry),
      mSemaphore(std::make_unique<CountingSemaphore>(static_cast<int>(registry.mWaiterCount))) {}

CBRegistry::CBList::~CBList() { dropMessages(mMessages); }

void CBRegistry::CBList::update(std::unique_ptr<Message> message) {
    {
        utils::LockGuard lock(mMutex);
        mMessages.push_back(std::move(message));
    }
    mSemaphore->release(1);
    IPC_LOGD("[%s] Release Semaphore of CBList", __func__);
}

bool CBRegistry::CBList::extract(std::unique_ptr<Message>& out) {
    utils::LockGuard lock(mMutex);
    if (mMessages.empty()) {
        return false;
    }
    // What `out` held was handed out before: destroyed, its descriptors left
    // to whoever took them.
    out = std::move(mMessages.front());
    mMessages.pop_front();
    return true;
}

bool CBRegistry::CBList::isEmpty() {
    utils::LockGuard lock(mMutex);
    return mMessages.empty();
}

void CBRegistry::CBList::requestExit() {
    mExiting.store(true, std::memory_order_release);
    mSemaphore->release(static_cast<int>(mRegistry.mWaiterCount));
    IPC_LOGD("[%s] Release Semaphore of CBList", __func__);
}

void CBRegistry::CBList::notify() { mCond.notify_all(); }

bool CBRegistry::CBList::wait() {
    IPC_LOGD("[%s] Block to wait for signal", __func__);
    mSemaphore->acquire();
    IPC_LOGD("[%s] Being signaled", __func__);
    if (mExiting.load(std::memory_order_acquire)) {
        IPC_LOGW("CBRegistry is exiting");
        return false;
    }
    IPC_LOGD("[%s] Extract next entry from CBList", __func__);
    return true;
}

}  // namespace Kestrel::ipc
