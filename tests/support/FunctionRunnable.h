// Test helper: a Runnable that calls a std::function, for handing lambdas to
// SocketEventHandler, DequeHandler and Thread.
#pragma once

#include <ipc/utils/Runnable.h>

#include <functional>
#include <utility>

namespace velacam::test {

class FunctionRunnable : public Kestrel::ipc::utils::Runnable {
  public:
    explicit FunctionRunnable(std::function<void()> body) : mBody(std::move(body)) {}
    void run() override { mBody(); }

  private:
    std::function<void()> mBody;
};

}  // namespace velacam::test
