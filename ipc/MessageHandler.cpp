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
    const std::vector<int> fds = message.payloadDescriptors();
    std::for_each(fds.begin(), fds.end(), [](int fd) {
        // NOLINTNEXTLINE(bugprone-lambda-function-name): the line names "operator()"
        IPC_LOGD("[%s] close fd(%d)", "operator()", fd);
        ::close(fd);
    });
    if (message.clearAllButDataCount() != 0) {
        IPC_FATAL("cannot reset the file descriptor count to 0 of a message header");
    }
}

void MessageHandler::handleMessage(std::unique_ptr<Message> message) {
    if (message) {
        MessageHandler::handleMessage(*message);
    }
}

}  // namespace Kestrel::ipc
