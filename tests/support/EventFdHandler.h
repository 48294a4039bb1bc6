// An EventHandler owning an eventfd; each call drains it (unless kAlwaysReady).
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
