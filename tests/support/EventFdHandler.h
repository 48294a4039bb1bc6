// Test helper: an EventHandler that owns an eventfd. ring() makes it
// readable; each dispatch reads the count back (unless made to stay ready, to
// keep every cycle of the loop busy), counts the call and notes the thread.
#pragma once

#include <ipc/EventHandler.h>
#include <sys/types.h>
#include <sysutils/FileDescriptor.h>

#include <atomic>

namespace velacam::test {

class EventFdHandler : public Kestrel::ipc::EventHandler {
  public:
    enum class Readiness { kDrainedByEachCall, kAlwaysReady };

    explicit EventFdHandler(Readiness readiness = Readiness::kDrainedByEachCall);
    void ring() const;
    void handleEvent() override;

    std::atomic<int> calls{0};
    std::atomic<pid_t> thread{0};  // the kernel id of the last caller

  private:
    EventFdHandler(Kestrel::utils::sys::FileDescriptor&& fd, Readiness readiness);

    Kestrel::utils::sys::FileDescriptor mFd;
    Readiness mReadiness;
};

}  // namespace velacam::test
