#include <ipc/CountingSemaphore.h>
#include <ipc/Message.h>
#include <ipc/MessageQueue.h>
#include <ipc/utils/Log.h>

#include "internal/DroppedMessage.h"
#include "internal/Observation.h"

namespace Kestrel::ipc {

namespace {
constexpr utils::LogSite kLogSite{"MessageQueue", "ipc/MessageQueue", utils::kLogModuleCore};
}  // namespace

MessageQueue::MessageQueue()
    : mTaken(std::make_unique<TakenMessages>()),
      mSemaphore(std::make_unique<CountingSemaphore>(1)) {}

MessageQueue::~MessageQueue() {
    observe::forgetQueue(this);
    mSemaphore.reset();
    dropMessages(*mTaken);
    dropMessages(mMessages);
}

void MessageQueue::enqueueMessage(std::unique_ptr<Message> message,
                                  std::chrono::milliseconds /*timeout*/) {
    if (mExiting.load(std::memory_order_acquire)) {
        IPC_LOGW("message queue is exiting, skip enqueueMessage()");
        dropMessage(std::move(message));
        return;
    }
    observe::enqueued(this, message.get());
    // Two pointers in the capture: small enough for std::function to keep
    // them without allocating.
    struct {
        std::unique_ptr<Message>& message;
        size_t queued;  // for the log line only
    } store{message, 0};
    mSemaphore->releaseWith(1, [this, &store]() IPC_REQUIRES(mSemaphore->mutex()) {
        mMessages.push_back(std::move(store.message));
        store.queued = mMessages.size();
    });
    const size_t queued = store.queued;
    IPC_LOGD("[%s] Release Semaphore of MessageQueue", __func__);
    IPC_LOGD("[%s] an available message arrived: %zu in total", __func__, queued);
}

MessageQueue::NextMessage MessageQueue::nextMessage(std::chrono::milliseconds timeout) {
    if (mExiting.load(std::memory_order_acquire)) {
        IPC_LOGW("message queue is exiting, skip nextMessage()");
        return {};
    }
    while (mTaken->empty()) {
        IPC_LOGD("[%s] wait for the next buffer...", __func__);
        IPC_LOGD("[%s] Block to wait for signal", __func__);
        // The exit flag is read with the units: once it is seen, the messages
        // stay queued. Units without a message (a stray exit unit) are simply
        // consumed.
        bool exiting = false;
        mSemaphore->acquireAllWith([this, &exiting]() IPC_REQUIRES(mSemaphore->mutex()) {
            exiting = mExiting.load(std::memory_order_acquire);
            if (!exiting) {
                mTaken->swap(mMessages);
            }
        });
        IPC_LOGD("[%s] Being signaled", __func__);
        if (exiting) {
            if (timeout < std::chrono::milliseconds(1)) {
                IPC_LOGW("message queue is exiting, cannot get the next message now");
            } else {
                IPC_LOGW("message queue is exiting, skip nextMessage()");
            }
            return {};
        }
    }
    IPC_LOGD("[%s] wake up to get the next message", __func__);
    NextMessage next;
    next.message = std::move(mTaken->front());
    mTaken->pop_front();
    IPC_LOGD("[%s] retrieve one message: %zu remained", __func__, mTaken->size());
    return next;
}

void MessageQueue::requestExit() {
    mExiting.store(true, std::memory_order_release);
    mSemaphore->release(1);
    IPC_LOGD("[%s] Release Semaphore of MessageQueue", __func__);
}

}  // namespace Kestrel::ipc
