#include <ipc/Message.h>
#include <ipc/MessageHandler.h>
#include <ipc/MessageLoop.h>
#include <ipc/utils/Log.h>

#include <cinttypes>

#include "internal/DroppedMessage.h"
#include "internal/Observation.h"

namespace Kestrel::ipc {

namespace {
constexpr utils::LogSite kLogSite{"MessageLoop", "ipc/MessageLoop", utils::kLogModuleCore};
}  // namespace

MessageLoop::MessageLoop() = default;

MessageLoop::~MessageLoop() = default;

void MessageLoop::dispatchMessages() {
    // The handler of the messages being dispatched, held through each call:
    // the message, which may be its last owner, can be destroyed inside it,
    // and a handler that drops its message must stay alive until it returns.
    // Held across a run of messages with the same handler, so that its
    // reference count moves when the handler changes, not once a message;
    // let go before any wait, so a handler nobody else owns goes once its
    // last call has returned.
    std::shared_ptr<MessageHandler> held;
    // Counted here and stored on return: the member shares its cache line
    // with what producers read on every enqueue.
    int64_t dispatched = mDispatchedCount;
    while (true) {
        if (!mMessageQueue.hasTakenMessages()) {
            held.reset();
        }
        MessageQueue::NextMessage next = mMessageQueue.nextMessage(std::chrono::milliseconds(0));
        if (!next.message) {
            if (!next.timedOut) {
                IPC_LOGW("message queue leaves us, exit now...");
                mDispatchedCount = dispatched;
                return;
            }
            IPC_LOGW("no available message, wait again...");
            continue;
        }
        ++dispatched;
        const observe::DispatchScope observed(&mMessageQueue, *next.message);
        const std::shared_ptr<MessageHandler>& handler = next.message->messageHandler();
        if (handler) {
            if (held != handler) {
                held = handler;
            }
            held->handleMessage(std::move(next.message));
        } else {
            dropMessage(std::move(next.message));
        }
        IPC_LOGD("[%s] (%" PRId64 " message dispatched) -", __func__, dispatched);
    }
}

void MessageLoop::requestExit() { mMessageQueue.requestExit(); }

}  // namespace Kestrel::ipc
