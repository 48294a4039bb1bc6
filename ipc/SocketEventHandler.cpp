#include <ipc/SocketEventHandler.h>
#include <ipc/utils/Log.h>
#include <unistd.h>

#include <cstring>
#include <utility>

#include "internal/ResultText.h"

namespace Kestrel::ipc {

// Prebuilt modules link against this layout.
static_assert(sizeof(SocketEventHandler) == (sizeof(void*) == 8 ? 56 : 48) &&
              alignof(SocketEventHandler) == 8);

namespace {
constexpr utils::LogSite kLogSite{"SocketEventHandler", "ipc/SocketEventHandler",
                                  utils::kLogModuleCore};
}  // namespace

SocketEventHandler::SocketEventHandler(Kestrel::utils::sys::FileDescriptor&& fd, EventType type)
    : EventHandler(fd.get(), type) {
    mSocket.bind(std::move(fd));
}

SocketEventHandler::~SocketEventHandler() = default;  // mRunnable goes first, then mSocket

void SocketEventHandler::handleEvent() {
    // A copy: the runnable may replace itself through setRunnable() while it
    // runs, and must live until it returns.
    const std::shared_ptr<utils::Runnable> runnable = mRunnable;
    if (!runnable) {
        IPC_LOGE("The runnable is invalid, do nothing");
        return;
    }
    runnable->run();
}

void SocketEventHandler::setRunnable(std::shared_ptr<utils::Runnable> runnable) {
    mRunnable = std::move(runnable);
}

void SocketEventHandler::setPayloadTimeout(std::chrono::milliseconds timeout) {
    mSocket.setPayloadTimeout(timeout);
}

void SocketEventHandler::setSendTimeout(std::chrono::milliseconds timeout) {
    mSocket.setSendTimeout(timeout);
}

int SocketEventHandler::sendMessage(const Message& message) {
    const int result = mSocket.send(message);
    if (result != 0) {
        IPC_LOGE("send string failed (%s)", resultText(result));
    }
    return result;
}

int SocketEventHandler::receiveMessage(Message* message) {
    const int result = mSocket.recv(message);
    if (result != 0) {
        IPC_LOGE("receive string failed(%s)", resultText(result));
    }
    return result;
}

void SocketEventHandler::setString(const std::string& text, Message* message) {
    if (message == nullptr) {
        IPC_LOGE("invalid result message");
        return;
    }
    size_t length = text.size();
    if (length >= kStringSize) {
        IPC_LOGE("string length(%zu) exceeds %u characters, cut", length, kStringSize - 1);
        length = kStringSize - 1;
    }
    message->setHeader(kStringSize, 0);
    Message::Payload payload;
    payload.data.resize(kStringSize);  // the NUL and the padding are zero bytes
    std::memcpy(payload.data.data(), text.data(), length);
    message->setPayload(payload);
}

void SocketEventHandler::sendString(const std::string& text) {
    Message message;
    setString(text, &message);
    (void)sendMessage(message);  // a failure is logged there; nobody to tell
}

std::string SocketEventHandler::receiveString() {
    Message message;
    (void)receiveMessage(&message);  // on failure the message has no payload: "" below
    const Message::Payload payload = message.payload();
    // A slot whose descriptor was lost holds -1. Skipping those matters: a
    // header may announce 65535 descriptors and bring one, and a close() for
    // every slot would let any peer cost this thread 65534 system calls.
    for (int fd : payload.fds) {
        if (fd >= 0) {
            ::close(fd);
        }
    }
    return std::string(payload.data.begin(), payload.data.end());
}

}  // namespace Kestrel::ipc
