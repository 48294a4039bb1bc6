#include "DroppedMessage.h"

#include <ipc/Message.h>
#include <sysutils/FileDescriptor.h>

#include <vector>

namespace Kestrel::ipc {

namespace {

// The descriptors `message` carries (lost slots, held as -1, skipped), each in
// an owning wrapper; the message's header then counts none.
std::vector<Kestrel::utils::sys::FileDescriptor> takeDescriptors(Message& message) {
    std::vector<Kestrel::utils::sys::FileDescriptor> owned;
    // A message without descriptors is left alone: asking a header-only
    // message for its payload logs a warning.
    if (message.fileDescriptorCount() == 0) {
        return owned;
    }
    const Message::Payload payload = message.payload();
    owned.reserve(payload.fds.size());
    for (const int fd : payload.fds) {
        if (fd >= 0) {
            owned.emplace_back(fd, 0);
        }
    }
    message.setHeader(message.dataCount(), 0);
    return owned;
}

}  // namespace

void dropMessage(std::unique_ptr<Message> message) {
    if (message) {
        const auto descriptors = takeDescriptors(*message);
    }
}

}  // namespace Kestrel::ipc
