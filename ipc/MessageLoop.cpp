#include <ipc/Message.h>
#include <ipc/MessageHandler.h>
#include <ipc/MessageLoop.h>
#include <ipc/utils/Log.h>

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
        // Hold the handler here: the message, which also holds it, is
        // destroyed inside the call.
        const std::shared_ptr<MessageHandler> handler = next.message->messageHandler();
        if (handler) {
            handler->handleMessage(std::move(next.message));
        }
        next.message.reset();
        IPC_LOGD("[%s] (%d message dispatched) -", __func__, mDispatchedCount);
    }
}

void MessageLoop::requestExit() { mMessageQueue.requestExit(); }

}  // namespace Kestrel::ipc
