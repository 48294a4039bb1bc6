// EventHandler and EventType: the poll mask of each event type (the same
// function the reactor uses to register and to check readiness), and what the
// base keeps.
#include <gtest/gtest.h>
#include <ipc/EventHandler.h>
#include <poll.h>

namespace {

using Kestrel::ipc::EventHandler;
using Kestrel::ipc::EventType;
using Kestrel::ipc::pollEventsOf;

TEST(EventTypeTest, MapsToPollMasks) {
    EXPECT_EQ(pollEventsOf(EventType::READ), POLLIN);
    EXPECT_EQ(pollEventsOf(EventType::WRITE), POLLOUT);
    EXPECT_EQ(pollEventsOf(EventType::PRIORITY), POLLPRI);
    EXPECT_EQ(static_cast<uint32_t>(EventType::READ), 1u);
    EXPECT_EQ(static_cast<uint32_t>(EventType::WRITE), 2u);
    EXPECT_EQ(static_cast<uint32_t>(EventType::PRIORITY), 4u);
    EXPECT_EQ(sizeof(EventType), 4u);
}

TEST(EventTypeTest, OtherValuesAreAcceptedAndAskForNothing) {
    for (uint32_t value : {0u, 3u, 5u, 8u, 0xffffffffu}) {
        EXPECT_EQ(pollEventsOf(static_cast<EventType>(value)), 0) << value;
    }
}

class Recorder : public EventHandler {
  public:
    using EventHandler::EventHandler;
    void handleEvent() override { ++events; }
    int events = 0;
};

TEST(EventHandlerTest, KeepsItsDescriptorAndType) {
    Recorder handler(42, static_cast<EventType>(3));
    EXPECT_EQ(handler.fd(), 42);
    EXPECT_EQ(handler.type(), static_cast<EventType>(3));
    EventHandler& base = handler;
    base.handleEvent();
    EXPECT_EQ(handler.events, 1);
}

}  // namespace
