// EventType: the poll mask of each event type, the one function the reactor
// uses both to register a handler and to check its readiness.
#include <gtest/gtest.h>
#include <ipc/EventHandler.h>
#include <poll.h>

namespace {

using Kestrel::ipc::EventType;
using Kestrel::ipc::pollEventsOf;

TEST(EventTypeTest, NamedTypesMapToTheirPollMasksAndOtherValuesToNothing) {
    const std::pair<uint32_t, short> expected[] = {{1, POLLIN}, {2, POLLOUT},    {4, POLLPRI},
                                                   {0, 0},      {3, 0},          {5, 0},
                                                   {8, 0},      {0xffffffffu, 0}};
    for (const auto& [value, mask] : expected) {
        EXPECT_EQ(pollEventsOf(static_cast<EventType>(value)), mask) << value;
    }
    EXPECT_EQ(EventType::READ, static_cast<EventType>(1));
    EXPECT_EQ(EventType::WRITE, static_cast<EventType>(2));
    EXPECT_EQ(EventType::PRIORITY, static_cast<EventType>(4));
    EXPECT_EQ(sizeof(EventType), 4u);
}

}  // namespace
