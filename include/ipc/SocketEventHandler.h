// SocketEventHandler: the event handler for one end of a socket pair.
//
// It owns a UnixDomainSocket bound to the descriptor it watches, sends and
// receives whole Messages on it, and, when the reactor reports the descriptor
// ready, runs the Runnable its owner installed (which typically calls
// receiveMessage()). It reads nothing by itself.
//
// It also carries one text per message in a fixed-length form: a string
// message has id, type and flags 0, no descriptor, and 1024 data bytes holding
// the text, a NUL and zero padding. receiveString() returns all 1024 bytes; a
// receiver that wants the text cuts it at the first NUL.
//
// Ownership: the socket owns the descriptor (the base's fd() is the same
// number) and closes it when the handler is destroyed; the handler does not
// unregister itself from a reactor, which holds it only weakly.
//
// Thread: handleEvent() runs on the reactor's thread. sendMessage() and
// receiveMessage() may be called from any thread, one user per direction at a
// time. setRunnable() is not locked: install the runnable before registering
// the handler with a reactor.
//
// Failure: sendMessage() and receiveMessage() return the socket's codes (0 or
// a negative errno value) and log failures; the string helpers only log.
// A peer that stops reading costs sendMessage() (and sendString()) at most
// the send time-out (1 s unless set), then -11 with nothing sent, or -103
// when the header alone went and the connection is out of step; a peer that
// stalls between its two records costs receiveMessage() at most the payload
// time-out. UnixDomainSocket.h says how often each happens.
//
// Compatibility: kept as log readers rely on it. sendMessage() and
// receiveMessage() log their failures as "send string failed" and "receive
// string failed" whatever the message.
#pragma once

#include <ipc/EventHandler.h>
#include <ipc/Message.h>
#include <ipc/UnixDomainSocket.h>
#include <ipc/utils/Runnable.h>
#include <sysutils/FileDescriptor.h>

#include <chrono>
#include <memory>
#include <string>

#include "ipc/Export.h"

namespace Kestrel::ipc {

class IPC_EXPORT SocketEventHandler : public EventHandler {
  public:
    // Data bytes of a string message.
    static constexpr uint32_t kStringSize = 1024;

    // Watches `fd` for `type` and takes ownership of it.
    SocketEventHandler(Kestrel::utils::sys::FileDescriptor&& fd, EventType type);
    // Drops the runnable, then closes the descriptor.
    ~SocketEventHandler() override;

    // Runs the runnable on the calling thread. Without one, logs "The runnable
    // is invalid, do nothing" (error) and returns; the event is not consumed.
    // The runnable is kept alive until it returns, even when it replaces
    // itself with setRunnable() from inside run().
    void handleEvent() override;

    // Shares `runnable`, releasing the one held before.
    void setRunnable(std::shared_ptr<utils::Runnable> runnable);

    // The socket the handler sends and receives on.
    const UnixDomainSocket& socket() const { return mSocket; }

    // How long receiveMessage() waits for a payload record once its header
    // has arrived (1 s unless set; 0 waits without limit): the socket's
    // UnixDomainSocket::setPayloadTimeout(). Set it before registering the
    // handler with a reactor, or from the thread that receives.
    void setPayloadTimeout(std::chrono::milliseconds timeout);
    // How long sendMessage() waits for room in the socket's send buffer when
    // the peer does not read (1 s unless set; 0 waits without limit): the
    // socket's UnixDomainSocket::setSendTimeout(). Set it before the handler
    // is in use, or from the thread that sends.
    void setSendTimeout(std::chrono::milliseconds timeout);

    // UnixDomainSocket::send / recv, logging a failure.
    [[nodiscard]] int sendMessage(const Message& message);
    [[nodiscard]] int receiveMessage(Message* message);

    // Makes `*message` a string message carrying `text`. A text longer than
    // 1023 characters is cut to 1023 (error logged) so that the NUL fits.
    // A null `message` logs "invalid result message" and changes nothing.
    void setString(const std::string& text, Message* message);
    // Sends `text` as a string message; a failure is only logged.
    void sendString(const std::string& text);
    // Receives one message and returns its whole data block (1024 bytes for a
    // string message), or "" when nothing usable arrived. Descriptors the
    // message carried, which a string message never does, are closed.
    std::string receiveString();

  private:
    UnixDomainSocket mSocket;
    std::shared_ptr<utils::Runnable> mRunnable;
};

}  // namespace Kestrel::ipc
