// A Runnable that calls a std::function: lets the demo hand lambdas to Thread
// and SocketEventHandler.
#pragma once

#include <ipc/utils/Runnable.h>

#include <functional>
#include <utility>

namespace demo {

class FunctionRunnable : public Kestrel::ipc::utils::Runnable {
  public:
    explicit FunctionRunnable(std::function<void()> body) : mBody(std::move(body)) {}
    void run() override { mBody(); }

  private:
    std::function<void()> mBody;
};

}  // namespace demo
