#include <ipc/CountingSemaphore.h>
#include <ipc/Message.h>
#include <ipc/MessageQueue.h>
#include <ipc/utils/Log.h>

#include "DroppedMessage.h"

namespace Kestrel::ipc {

namespace {
constexpr utils::LogSite kLogSite{"MessageQueue", "ipc/MessageQueue", utils::kLogModuleCore};
}  // namespace

MessageQueue::MessageQueue() : mSemaphore(std::make_unique<CountingSemaphore>(1)) {}

MessageQueue::~MessageQueue() {
    mSemaphore.reset();
    dropMessages(mMessages);
}

void MessageQueue::enqueueMessage(std::unique_ptr<Message> message,
                                  std::chrono::milliseconds /*timeout*/) {
    if (mExiting.load(std::memory_order_acquire)) {
        IPC_LOGW("message queue is exiting, skip enqueueMessage()");
        dropMessage(std::move(message));
        return;
    }
    size_t queued = 0;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mMessages.push_back(std::move(message));
        queued = mMessages.size();  // for the log line only
    }
    mSemaphore->release(1);
    IPC_LOGD("[%s] Release Semaphore of MessageQueue", __func__);
    IPC_LOGD("[%s] an available message arrived: %zu in total", __func__, queued);
}

MessageQueue::NextMessage MessageQueue::nextMessage(std::chrono::milliseconds timeout) {
    if (mExiting.load(std::memory_order_acquire)) {
        IPC_LOGW("message queue is exiting, skip nextMessage()");
        return {};
    }
    while (true) {
        IPC_LOGD("[%s] wait for the next buffer...", __func__);
        IPC_LOGD("[%s] Block to wait for signal", __func__);
        mSemaphore->acquire();
        IPC_LOGD("[%s] Being signaled", __func__);
        if (mExiting.load(std::memory_order_acquire)) {
            if (timeout < std::chrono::milliseconds(1)) {
                IPC_LOGW("message queue is exiting, cannot get the next message now");
            } else {
                IPC_LOGW("message queue is exiting, skip nextMessage()");
            }
            return {};
        }
        std::lock_guard<std::mutex> lock(mMutex);
        // A unit without a message (a stray exit unit) is simply consumed.
        if (mMessages.empty()) {
            continue;
        }
        IPC_LOGD("[%s] wake up to get the next message", __func__);
        NextMessage next;
        next.message = std::move(mMessages.front());
        mMessages.pop_front();
        IPC_LOGD("[%s] retrieve one message: %zu remained", __func__, mMessages.size());
        return next;
    }
}

void MessageQueue::requestExit() {
    mExiting.store(true, std::memory_order_release);
    mSemaphore->release(1);
    IPC_LOGD("[%s] Release Semaphore of MessageQueue", __func__);
}

}  // namespace Kestrel::ipc
