// The serving process of the soak: a DefaultReactor on its own thread
// receives the clients' requests, a MessageLoop on another thread checks each
// one (its body and the text of every descriptor it carries) and replies. A
// client with many requests waiting is not read until the loop caught up. A
// client whose receive or reply fails, or that hangs up, is disconnected at
// once; the others go on being served.
//
// Ownership: the server owns one SocketEventHandler per client; received
// descriptors are closed once their request is answered.
// Thread: addClient(), closeClient(), drain() and counters() from the
// orchestrating thread; the rest runs on the reactor and loop threads.
#pragma once

#include <ipc/DefaultReactor.h>
#include <ipc/EventHandler.h>
#include <ipc/MessageLoop.h>
#include <ipc/utils/Thread.h>
#include <sysutils/FileDescriptor.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

#include "SoakProtocol.h"

namespace velacam::soak {

struct ServerCounters {
    uint64_t requests = 0;         // requests taken off the loop
    uint64_t replies = 0;          // replies sent whole
    uint64_t refusedRequests = 0;  // replies with a status other than kReplyOk
    uint64_t descriptorsReceived = 0;
    uint64_t receiveErrors[kErrorKinds] = {};
    uint64_t sendErrors[kErrorKinds] = {};
    uint64_t notRequests = 0;  // messages of another type (a peer gone, or lying)
    uint64_t hangUps = 0;
    uint64_t connectionsOpened = 0;
    uint64_t connectionsClosed = 0;
    uint64_t droppedAfterClose = 0;  // requests of a client already disconnected
};

class SoakServer {
  public:
    SoakServer();
    ~SoakServer();
    SoakServer(const SoakServer&) = delete;
    SoakServer& operator=(const SoakServer&) = delete;

    // Serves the client at `end`, the server's end of its socket pair.
    void addClient(uint32_t slot, Kestrel::utils::sys::FileDescriptor&& end);
    // Disconnects the client of `slot` if it still is connected.
    void closeClient(uint32_t slot);
    // Waits until the loop has handled every request queued before the call;
    // false when that took longer than `limit`.
    bool drain(std::chrono::milliseconds limit);
    ServerCounters counters() const;

  private:
    struct Connection;
    class RequestHandler;

    void receive(const std::shared_ptr<Connection>& connection);
    void serve(const std::shared_ptr<Connection>& connection, Kestrel::ipc::Message& request);
    void dequeued(const std::shared_ptr<Connection>& connection);
    void close(const std::shared_ptr<Connection>& connection);
    void hangUp(int fd);
    void wake();
    template <typename Change>
    void count(Change change) {
        std::lock_guard<std::mutex> lock(mCountersMutex);
        change(mCounters);
    }

    Kestrel::ipc::DefaultReactor mReactor;
    Kestrel::ipc::MessageLoop* mLoop = nullptr;
    Kestrel::ipc::utils::Thread mReactorThread;
    Kestrel::ipc::utils::Thread mLoopThread;
    // Keeps the reactor polling while no client is connected (it would spin
    // without a handler), and wakes it when a registration changed: a byte
    // written to mIdlePeer.
    std::shared_ptr<Kestrel::ipc::EventHandler> mIdle;
    Kestrel::utils::sys::FileDescriptor mIdlePeer;

    mutable std::mutex mConnectionsMutex;
    std::map<uint32_t, std::shared_ptr<Connection>> mConnections;
    mutable std::mutex mCountersMutex;
    ServerCounters mCounters;
};

}  // namespace velacam::soak
