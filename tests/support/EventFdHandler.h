// An EventHandler owning an eventfd; each call drains it.
#pragma once

#include <ipc/EventHandler.h>
#include <sys/types.h>
#include <sysutils/FileDescriptor.h>

#include <atomic>

namespace velacam::test {

class EventFdHandler : public Kestrel::ipc::EventHandler {
  public:
    EventFdHandler();
    void ring() const;
    void handleEvent() override;

    std::atomic<int> calls{0};
    std::atomic<pid_t> thread{0};  // the kernel id of the last caller

  private:
    explicit EventFdHandler(Kestrel::utils::sys::FileDescriptor&& fd);

    Kestrel::utils::sys::FileDescriptor mFd;
};

}  // namespace velacam::test
