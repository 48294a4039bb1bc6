// Runs a DefaultReactor's loop on a thread of its own until stop() or destruction.
#pragma once

#include <ipc/DefaultReactor.h>

#include <chrono>
#include <thread>

namespace velacam::test {

class ReactorThread {
  public:
    explicit ReactorThread(Kestrel::ipc::DefaultReactor& reactor,
                           std::chrono::milliseconds timeout = std::chrono::milliseconds(0))
        : mReactor(reactor), mThread([&reactor, timeout] { reactor.loop(timeout); }) {}
    ~ReactorThread() { stop(); }
    ReactorThread(const ReactorThread&) = delete;
    ReactorThread& operator=(const ReactorThread&) = delete;

    void stop() {
        if (mThread.joinable()) {
            mReactor.requestExit();
            mThread.join();
        }
    }
    std::thread& thread() { return mThread; }

  private:
    Kestrel::ipc::DefaultReactor& mReactor;
    std::thread mThread;
};

}  // namespace velacam::test
