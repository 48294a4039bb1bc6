#include "support/EventFdHandler.h"

#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

namespace velacam::test {

using Kestrel::utils::sys::FileDescriptor;

EventFdHandler::EventFdHandler()
    : EventFdHandler(FileDescriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), 0)) {}

EventFdHandler::EventFdHandler(FileDescriptor&& fd)
    : EventHandler(fd.get(), Kestrel::ipc::EventType::READ), mFd(std::move(fd)) {}

void EventFdHandler::ring() const {
    const uint64_t one = 1;
    EXPECT_EQ(write(mFd.get(), &one, sizeof(one)), static_cast<ssize_t>(sizeof(one)));
}

void EventFdHandler::handleEvent() {
    uint64_t count = 0;
    EXPECT_EQ(read(mFd.get(), &count, sizeof(count)), static_cast<ssize_t>(sizeof(count)));
    thread = gettid();
    ++calls;
}

}  // namespace velacam::test
