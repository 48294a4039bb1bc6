// DequeHandler: holds one shared Runnable and runs it on demand.
//
// A small building block: whoever drains a queue gives the handler the work
// to do per item and calls handleDeque() for each. The handler shares
// ownership of the runnable with its other owners. It is not an EventHandler
// and has no virtual operations.
//
// Thread: no lock is taken; setRunnable() and handleDeque() must not race on
// the same object from two threads. Failure: handleDeque() without a runnable logs an error and
// does nothing; nothing is fatal.
#pragma once

#include <ipc/utils/Runnable.h>

#include <memory>

#include "ipc/Export.h"

namespace Kestrel::ipc {

class IPC_EXPORT DequeHandler {
  public:
    // Keeps `id` for its owner; nothing here interprets it. No runnable yet.
    explicit DequeHandler(int id);
    ~DequeHandler();

    // The id given at construction.
    int id() const { return mId; }

    // Takes `runnable` over (the argument is left empty) and drops this
    // handler's reference to the previous one, if any.
    void setRunnable(std::shared_ptr<utils::Runnable>&& runnable);

    // Runs the runnable on the calling thread and returns when it returns.
    // Without one, logs "The runnable is invalid, do nothing" (error). The
    // runnable is kept alive until it returns, even when it replaces itself
    // with setRunnable() from inside run() (the one place where the two may
    // meet on one object).
    void handleDeque();

  private:
    const int mId;
    std::shared_ptr<utils::Runnable> mRunnable;
};

}  // namespace Kestrel::ipc
