// The runnable of a Thread, shared by the Thread that holds it and by every
// thread running it.
//
// A Thread hands its runnable (and the ownership of it) on when it is moved,
// but a thread it started goes on running that runnable; the moved-to object
// may start a second thread on it and may be destroyed first. So a runnable
// lives until its holder lets go of it and every thread running it has
// returned: each of them holds one reference, and the last one to let go
// destroys the runnable when it was owned, then the share itself.
//
// Thread: references are taken and dropped on any thread; the count is atomic.
#pragma once

#include <ipc/utils/Runnable.h>

#include <atomic>
#include <memory>

namespace Kestrel::ipc::utils {

class SharedRunnable {
  public:
    // Drops one reference when a Reference goes.
    struct Dropper {
        void operator()(SharedRunnable* share) const { share->drop(); }
    };
    // One reference held for a scope (a running thread's).
    using Reference = std::unique_ptr<SharedRunnable, Dropper>;

    // A share of `runnable` with one reference, the caller's. `owned`: the
    // last reference destroys the runnable.
    static SharedRunnable* make(Runnable* runnable, bool owned) {
        return new SharedRunnable(runnable, owned);
    }

    // One more reference, or none for a null share.
    static Reference referenceTo(SharedRunnable* share) {
        if (share != nullptr) {
            share->mReferences.fetch_add(1, std::memory_order_relaxed);
        }
        return Reference(share);
    }

    Runnable* runnable() const { return mRunnable; }

    // Lets go of one reference; the last destroys an owned runnable and this.
    void drop() {
        if (mReferences.fetch_sub(1, std::memory_order_acq_rel) != 1) {
            return;
        }
        if (mOwned) {
            delete mRunnable;
        }
        delete this;
    }

    SharedRunnable(const SharedRunnable&) = delete;
    SharedRunnable& operator=(const SharedRunnable&) = delete;

  private:
    SharedRunnable(Runnable* runnable, bool owned) : mRunnable(runnable), mOwned(owned) {}
    ~SharedRunnable() = default;

    Runnable* const mRunnable;
    const bool mOwned;
    std::atomic<unsigned> mReferences{1};
};

}  // namespace Kestrel::ipc::utils
