// FunctionRunnable: a Runnable that calls any callable, so that a lambda can be
// handed to a Thread, a SocketEventHandler, a DequeHandler or a ThreadPool.
//
// It owns the callable (a copy, or what was moved in) and whatever the
// callable captured by value; what it captured by reference must outlive it.
// run() calls the callable on the calling thread with no lock held; the
// callable itself decides which threads may run it at once. It reports no
// failure of its own: an exception the callable throws reaches run()'s caller.
#pragma once

#include <ipc/utils/Runnable.h>

#include <functional>

#include "ipc/Export.h"

namespace Kestrel::ipc::utils {

class IPC_EXPORT FunctionRunnable final : public Runnable {
  public:
    // Keeps `function`. An empty one is the caller's error: run() then throws
    // std::bad_function_call, which ends the process where nothing catches it
    // (on a Thread or the reactor's thread).
    explicit FunctionRunnable(std::function<void()> function);

    // Calls the function on the calling thread and returns when it returns.
    void run() override;

  private:
    std::function<void()> mFunction;
};

}  // namespace Kestrel::ipc::utils
