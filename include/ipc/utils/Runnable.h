// Runnable: an abstract unit of work with one operation, run().
//
// The thread pool's workers are runnables; DequeHandler and SocketEventHandler
// run the one their owner installs. Runnables are shared through
// std::shared_ptr; whoever calls run() does so on its own thread and waits for
// it to return.
//
// Compatibility: run() is declared before the destructor, as existing
// subclasses rely on that order of the virtual slots.
#pragma once

#include "ipc/Export.h"

namespace Kestrel::ipc::utils {

class IPC_EXPORT Runnable {
  public:
    // Does the work, on the calling thread.
    virtual void run() = 0;
    virtual ~Runnable() = default;
};

}  // namespace Kestrel::ipc::utils
