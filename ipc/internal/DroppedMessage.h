// Disposal of messages that the library destroys without handing them to a
// handler: a reply nobody waits for, an enqueue after exit, what a container
// still holds when it goes away.
//
// Message's own destructor leaves descriptors open on purpose (a caller that
// took them out of a payload keeps them), so every such path goes through
// dropMessage(): the descriptors are read in place and closed, without a copy
// of the payload or any allocation; a moved-from message carries none. A
// message the library has handed out (what a caller leaves in an
// extraction's out-parameter) is the caller's and never comes here.
// Thread: any; the message must not be shared.
#pragma once

#include <memory>
#include <utility>

namespace Kestrel::ipc {

class Message;

// Destroys `message` (null is allowed) after closing its descriptors.
void dropMessage(std::unique_ptr<Message> message);

// Drops every message of `messages` (a container of std::unique_ptr<Message>)
// and leaves it empty.
template <typename Messages>
void dropMessages(Messages& messages) {
    for (auto& message : messages) {
        dropMessage(std::move(message));
    }
    messages.clear();
}

}  // namespace Kestrel::ipc
