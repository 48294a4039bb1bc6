// MessageHandler: the consumer of a Message.
//
// Every Message holds a shared pointer to one; the message loop hands each
// message to its handler. The default implementation disposes of the
// descriptors the message carries (closes each one and sets the header's
// descriptor count to 0) so that a message nobody cares about leaks nothing.
// Subclasses override both overloads to do real work.
//
// Thread: whichever thread dispatches the message; the handler itself holds no
// state and takes no lock. Failure: a descriptor count that cannot be reset is
// a broken invariant and ends the process.
#pragma once

#include <memory>

#include "ipc/Export.h"

namespace Kestrel::ipc {

class Message;

class IPC_EXPORT MessageHandler {
  public:
    MessageHandler() = default;
    virtual ~MessageHandler();

    // Takes the message's descriptors and rewrites its header as
    // setHeader(dataCount(), 0) does (id, type and flags become 0 as well) in
    // one hold of the message's lock, then closes the descriptors in payload
    // order with no lock held. The lines logged are those of payload() and
    // one per close, in that order.
    virtual void handleMessage(Message& message);

    // The same on `*message`; the message is destroyed on return. This is the
    // overload MessageLoop calls.
    virtual void handleMessage(std::unique_ptr<Message> message);
};

}  // namespace Kestrel::ipc
