// Test helper: the serving side of a request/reply scenario. A reactor on a
// thread of its own receives each request on one end of a socket pair, a
// message loop on another answers it with a one-byte status 0 through the same
// socket, until the peer hangs up. Every wait is bounded by its caller.
#pragma once

#include <ipc/CBRegistry.h>
#include <ipc/DefaultReactor.h>
#include <ipc/MessageLoop.h>
#include <ipc/SocketEventHandler.h>
#include <ipc/UnixDomainSocket.h>
#include <sysutils/FileDescriptor.h>

#include <chrono>
#include <future>
#include <memory>
#include <thread>

#include "support/ReactorThread.h"

namespace velacam::test {

class AnsweringServer {
  public:
    // Serves on `end`; each reply has type `replyType` and the reply flag.
    explicit AnsweringServer(Kestrel::utils::sys::FileDescriptor end, uint32_t replyType = 0);
    ~AnsweringServer();
    AnsweringServer(const AnsweringServer&) = delete;
    AnsweringServer& operator=(const AnsweringServer&) = delete;

    // Registers the socket with the reactor, then runs the reactor on its
    // thread; false when the registration is refused.
    [[nodiscard]] bool start();
    // Waits up to `limit` for the peer's hang-up, which removes the socket and
    // ends the reactor; then ends the loop. False when no hang-up came.
    [[nodiscard]] bool waitForHangUp(std::chrono::milliseconds limit);

    Kestrel::ipc::DefaultReactor& reactor() { return mReactor; }
    Kestrel::ipc::MessageLoop& loop() { return mLoop; }

  private:
    void stop();

    std::shared_ptr<Kestrel::ipc::SocketEventHandler> mSocket;
    std::shared_ptr<Kestrel::ipc::MessageHandler> mAnswer;
    Kestrel::ipc::MessageLoop mLoop;
    std::thread mLoopThread;
    Kestrel::ipc::DefaultReactor mReactor;
    std::promise<void> mHungUp;
    std::unique_ptr<ReactorThread> mReactorThread;
};

// One round trip from the client's side: registers a callback for a request
// of `id` and `type` carrying four bytes, sends it, receives the reply and
// hands it to `registry`. Fails the test when the send or receive fails.
void roundTrip(Kestrel::ipc::UnixDomainSocket& client, Kestrel::ipc::CBRegistry& registry,
               uint32_t id, uint32_t type, std::function<void(uint8_t)> callback);

}  // namespace velacam::test
