#include "DroppedMessage.h"

#include <ipc/Message.h>

namespace Kestrel::ipc {

void dropMessage(std::unique_ptr<Message> message) {
    if (message) {
        message->closeCarriedDescriptors();
    }
}

}  // namespace Kestrel::ipc
