// Test helper: a Runnable that calls a std::function, for handing lambdas to
// SocketEventHandler, DequeHandler and Thread. Given a counter, it counts its
// own destruction there, so that a test sees who destroyed it and when.
#pragma once

#include <ipc/utils/Runnable.h>

#include <atomic>
#include <functional>
#include <utility>

namespace velacam::test {

class FunctionRunnable : public Kestrel::ipc::utils::Runnable {
  public:
    explicit FunctionRunnable(std::function<void()> body, std::atomic<int>* destroyed = nullptr)
        : mBody(std::move(body)), mDestroyed(destroyed) {}
    ~FunctionRunnable() override {
        if (mDestroyed != nullptr) {
            ++*mDestroyed;
        }
    }
    void run() override { mBody(); }

  private:
    std::function<void()> mBody;
    std::atomic<int>* mDestroyed;
};

}  // namespace velacam::test
