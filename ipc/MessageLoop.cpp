#include <ipc/Message.h>
#include <ipc/MessageHandler.h>
#include <ipc/MessageLoop.h>
#include <ipc/utils/Log.h>

#include <cinttypes>

#include "DroppedMessage.h"

namespace Kestrel::ipc {

namespace {
constexpr utils::LogSite kLogSite{"MessageLoop", "ipc/MessageLoop", utils::kLogModuleCore};
}  // namespace

MessageLoop::MessageLoop() = default;

MessageLoop::~MessageLoop() = default;

void MessageLoop::dispatchMessages() {
    while (true) {
        MessageQueue::NextMessage next = mMessageQueue.nextMessage(std::chrono::milliseconds(0));
        if (!next.message) {
            if (!next.timedOut) {
                IPC_LOGW("message queue leaves us, exit now...");
                return;
            }
            IPC_LOGW("no available message, wait again...");
            continue;
        }
        ++mDispatchedCount;
        // Hold the handler here: the message, which may be its last owner,
        // can be destroyed inside the call. One reference-count round trip on
        // the consumer's own thread: cheap, and a handler that resets its
        // message stays alive until it returns.
        const std::shared_ptr<MessageHandler> handler = next.message->messageHandler();
        if (handler) {
            handler->handleMessage(std::move(next.message));
        } else {
            dropMessage(std::move(next.message));
        }
        IPC_LOGD("[%s] (%" PRId64 " message dispatched) -", __func__, mDispatchedCount);
    }
}

void MessageLoop::requestExit() { mMessageQueue.requestExit(); }

}  // namespace Kestrel::ipc
