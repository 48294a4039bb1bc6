#include <ipc/Message.h>
#include <ipc/MessageHandler.h>
#include <ipc/utils/Log.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

namespace Kestrel::ipc {

namespace {
constexpr utils::LogSite kLogSite{"MessageHandler", "ipc/MessageHandler", utils::kLogModuleCore};

}  // namespace

MessageHandler::~MessageHandler() = default;

void MessageHandler::handleMessage(Message& message) {
    // The header is cleared before the descriptors are closed, so that the
    // message's lock is taken once and no close() runs under it; the lines
    // come out in the same order.
    const Message::Disposal disposal = message.takeForDisposal();
    std::for_each(disposal.fds.begin(), disposal.fds.end(), [](int fd) {
        // NOLINTNEXTLINE(bugprone-lambda-function-name): the line names "operator()"
        IPC_LOGD("[%s] close fd(%d)", "operator()", fd);
        ::close(fd);
    });
    if (disposal.fdCountAfter != 0) {
        IPC_FATAL("cannot reset the file descriptor count to 0 of a message header");
    }
}

void MessageHandler::handleMessage(std::unique_ptr<Message> message) {
    if (message) {
        MessageHandler::handleMessage(*message);
    }
}

}  // namespace Kestrel::ipc
