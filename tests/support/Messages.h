// Test helpers: the one way suites build a message, and a handler made of a function.
#pragma once

#include <ipc/Message.h>
#include <ipc/MessageHandler.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace velacam::test {

// A message whose header counts match `data` and `fds` (not owned), handled
// by `handler` (the default one when null).
inline std::unique_ptr<Kestrel::ipc::Message> makeMessage(
        uint32_t id, std::vector<uint8_t> data = {}, std::vector<int> fds = {},
        std::shared_ptr<Kestrel::ipc::MessageHandler> handler = nullptr, uint32_t type = 0) {
    auto message = std::make_unique<Kestrel::ipc::Message>(std::move(handler));
    Kestrel::ipc::Message::Payload payload;
    payload.data = std::move(data);
    payload.fds = std::move(fds);
    if (!payload.data.empty() || !payload.fds.empty()) {
        message->setPayload(payload);
    }
    message->setHeader(id, type, 0, static_cast<uint32_t>(payload.data.size()),
                       static_cast<uint16_t>(payload.fds.size()));
    return message;
}

// Hands each message dispatched to it to a function.
class FunctionHandler : public Kestrel::ipc::MessageHandler {
  public:
    using Function = std::function<void(std::unique_ptr<Kestrel::ipc::Message>)>;
    explicit FunctionHandler(Function handle) : mHandle(std::move(handle)) {}
    using MessageHandler::handleMessage;
    void handleMessage(std::unique_ptr<Kestrel::ipc::Message> message) override {
        mHandle(std::move(message));
    }

  private:
    Function mHandle;
};

}  // namespace velacam::test
