// CBRegistry: one-shot callbacks by id, the reply's status byte, and the
// worker list with its declared waiters.
#include <gtest/gtest.h>
#include <ipc/CBRegistry.h>
#include <ipc/Message.h>
#include <ipc/utils/Log.h>

#include <atomic>
#include <cstdio>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "support/LogCapture.h"
#include "support/Waiting.h"

namespace {

using Kestrel::ipc::CBRegistry;
using Kestrel::ipc::Message;
using Kestrel::ipc::utils::LogSetting;
using velacam::test::LogCapture;
using velacam::test::waitUntil;
using velacam::test::Watchdog;
using namespace std::chrono_literals;

std::unique_ptr<Message> makeRequest(uint32_t id) {
    auto message = std::make_unique<Message>();
    message->setHeader(id, 0, 0, 0, 0);
    return message;
}

// A reply for `id` whose payload data are `data` (the status is data[0]).
std::unique_ptr<Message> makeReply(uint32_t id, std::vector<uint8_t> data,
                                   std::vector<int> fds = {}) {
    auto message = std::make_unique<Message>();
    Message::Payload payload;
    payload.data = std::move(data);
    payload.fds = std::move(fds);
    message->setPayload(payload);
    message->setHeader(id, 0, Message::kFlagReply, static_cast<uint32_t>(payload.data.size()),
                       static_cast<uint16_t>(payload.fds.size()));
    return message;
}

class CBRegistryTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (LogSetting::logLevel() < 1) {
            GTEST_SKIP() << "needs the debug property";
        }
    }

    void startWaiters(CBRegistry& registry, int n) {
        for (int i = 0; i < n; ++i) {
            waiters.emplace_back([this, &registry] {
                trueResults += registry.waitCB() ? 1 : 0;
                ++returned;
            });
        }
        ASSERT_TRUE(capture.waitFor("[wait] Block to wait for signal", static_cast<size_t>(n)));
    }
    void joinWaiters() {
        for (auto& waiter : waiters) {
            waiter.join();
        }
    }

    LogCapture capture;
    Watchdog watchdog{"CBRegistry test", 30s};
    std::vector<std::thread> waiters;
    std::atomic<int> returned{0};
    std::atomic<int> trueResults{0};
};

TEST_F(CBRegistryTest, SecondRegistrationIsRefusedAndTheFirstCallbackKept) {
    CBRegistry registry(1);
    std::vector<int> calls;
    registry.registerCB(*makeRequest(12), [&](uint8_t status) { calls.push_back(100 + status); });
    registry.registerCB(*makeRequest(12), [&](uint8_t status) { calls.push_back(200 + status); });
    ASSERT_EQ(capture.count("CB has registered, ERROR with msgID=12"), 1u);
    EXPECT_EQ(capture.lines().back().level, 1u);
    EXPECT_EQ(capture.lines().back().moduleId, Kestrel::ipc::utils::kLogModuleSync);

    registry.unRegisterCB(makeReply(12, {4}));
    EXPECT_EQ(calls, (std::vector<int>{104}));
}

TEST_F(CBRegistryTest, UnregisterCallsTheCallbackOnceWithTheFirstDataByte) {
    CBRegistry registry(1);
    std::vector<uint8_t> statuses;
    registry.registerCB(*makeRequest(12), [&](uint8_t status) { statuses.push_back(status); });
    auto reply = makeReply(12, {3, 9, 9});
    const void* address = reply.get();
    registry.unRegisterCB(std::move(reply));
    EXPECT_EQ(statuses, (std::vector<uint8_t>{3}));
    char expected[128];
    std::snprintf(expected, sizeof(expected),
                  "[unRegisterCB] CB unRegistered, msgID=12, msgPtr:%p, status:3", address);
    EXPECT_EQ(capture.count(expected), 1u);

    registry.unRegisterCB(makeReply(12, {5}));
    EXPECT_EQ(capture.count("CB has not registered, ERROR with msgID=12"), 1u);
    EXPECT_EQ(statuses.size(), 1u);
}

TEST_F(CBRegistryTest, StatusAbove127IsPassedAsAnUnsignedByte) {
    CBRegistry registry(1);
    int received = -1;
    registry.registerCB(*makeRequest(1), [&](uint8_t status) { received = status; });
    registry.unRegisterCB(makeReply(1, {0xF0}));
    EXPECT_EQ(received, 0xF0);
    EXPECT_EQ(capture.countContaining("status:240"), 1u);
}

TEST_F(CBRegistryTest, CallbackMayRegisterItsOwnIdAgainFromInside) {
    Watchdog noDeadlock("re-registration from a callback", 5s);
    CBRegistry registry(1);
    std::vector<uint8_t> second;
    registry.registerCB(*makeRequest(21), [&](uint8_t) {
        registry.registerCB(*makeRequest(21), [&](uint8_t status) { second.push_back(status); });
    });
    registry.unRegisterCB(makeReply(21, {1}));
    EXPECT_EQ(capture.countContaining("CB has registered"), 0u);
    registry.unRegisterCB(makeReply(21, {2}));
    EXPECT_EQ(second, (std::vector<uint8_t>{2}));
}

TEST_F(CBRegistryTest, ReplyWithoutDataIsRejectedAndTheCallbackStaysRegistered) {
    CBRegistry registry(1);
    std::vector<uint8_t> statuses;
    registry.registerCB(*makeRequest(30), [&](uint8_t status) { statuses.push_back(status); });

    registry.unRegisterCB(makeRequest(30));          // header only
    registry.unRegisterCB(makeReply(30, {}, {-1}));  // a descriptor but no data byte
    EXPECT_EQ(capture.count("CB status is missing, ERROR with msgID=30"), 2u);
    EXPECT_TRUE(statuses.empty());

    registry.unRegisterCB(makeReply(30, {6}));
    EXPECT_EQ(statuses, (std::vector<uint8_t>{6}));
}

TEST_F(CBRegistryTest, EmptyCallbackThrowsAfterItsEntryIsRemoved) {
    CBRegistry registry(1);
    registry.registerCB(*makeRequest(40), std::function<void(uint8_t)>());
    EXPECT_THROW(registry.unRegisterCB(makeReply(40, {0})), std::bad_function_call);
    registry.unRegisterCB(makeReply(40, {0}));
    EXPECT_EQ(capture.count("CB has not registered, ERROR with msgID=40"), 1u);
    // The lock was released before the throw.
    registry.registerCB(*makeRequest(40), [](uint8_t) {});
    EXPECT_EQ(capture.countContaining("CB has registered"), 0u);
}

TEST_F(CBRegistryTest, CallbacksLeftAtDestructionAreDestroyedUncalled) {
    auto token = std::make_shared<int>(0);
    bool called = false;
    {
        CBRegistry registry(1);
        registry.registerCB(*makeRequest(50), [token, &called](uint8_t) { called = true; });
        EXPECT_EQ(token.use_count(), 2);
    }
    EXPECT_EQ(token.use_count(), 1);
    EXPECT_FALSE(called);
}

TEST_F(CBRegistryTest, ListHandsOutMessagesInArrivalOrder) {
    CBRegistry registry(1);
    EXPECT_TRUE(registry.isEmptyCBList());
    registry.updateCBList(makeRequest(1));
    registry.updateCBList(makeRequest(2));
    EXPECT_EQ(capture.count("[update] Release Semaphore of CBList"), 2u);
    EXPECT_FALSE(registry.isEmptyCBList());

    std::unique_ptr<Message> out;
    ASSERT_TRUE(registry.waitCB());
    ASSERT_TRUE(registry.extractCBList(out));
    EXPECT_EQ(out->id(), 1u);
    ASSERT_TRUE(registry.waitCB());
    ASSERT_TRUE(registry.extractCBList(out));
    EXPECT_EQ(out->id(), 2u);
    EXPECT_EQ(capture.count("[wait] Extract next entry from CBList"), 2u);

    EXPECT_FALSE(registry.extractCBList(out));
    ASSERT_TRUE(out);
    EXPECT_EQ(out->id(), 2u);
    EXPECT_TRUE(registry.isEmptyCBList());
}

TEST_F(CBRegistryTest, RequestExitWakesExactlyTheDeclaredWaiters) {
    CBRegistry registry(3);
    startWaiters(registry, 4);
    registry.requestExit();
    EXPECT_TRUE(waitUntil([&] { return returned.load() == 3; }));
    std::this_thread::sleep_for(50ms);  // the surplus waiter must stay blocked
    EXPECT_EQ(returned.load(), 3);
    EXPECT_EQ(capture.count("CBRegistry is exiting"), 3u);
    EXPECT_EQ(capture.count("[requestExit] Release Semaphore of CBList"), 1u);

    registry.updateCBList(makeRequest(1));  // accepted after exit; frees the surplus waiter
    joinWaiters();
    EXPECT_EQ(trueResults.load(), 0);
    EXPECT_FALSE(registry.isEmptyCBList());
}

TEST_F(CBRegistryTest, NotifyWakesNobody) {
    CBRegistry registry(1);
    startWaiters(registry, 1);
    registry.notifyCB();
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(returned.load(), 0);
    registry.requestExit();
    joinWaiters();
    EXPECT_EQ(trueResults.load(), 0);
}

// The documented worker pattern: workers take replies off the list and
// complete the callbacks registered by other threads; each fires once.
TEST(CBRegistryConcurrency, WorkersCompleteEveryCallbackOnce) {
    constexpr int kWorkers = 2;
    constexpr uint32_t kRequests = 2000;
    Watchdog watchdog("callback workers", 60s);
    CBRegistry registry(kWorkers);
    std::vector<std::atomic<int>> calls(kRequests);
    std::atomic<int> wrongStatus{0};
    std::vector<std::thread> workers;
    for (int w = 0; w < kWorkers; ++w) {
        workers.emplace_back([&] {
            while (registry.waitCB()) {
                std::unique_ptr<Message> reply;
                if (registry.extractCBList(reply)) {
                    registry.unRegisterCB(std::move(reply));
                }
            }
        });
    }
    std::thread requester([&] {
        for (uint32_t id = 0; id < kRequests; ++id) {
            registry.registerCB(*makeRequest(id), [&, id](uint8_t status) {
                ++calls[id];
                wrongStatus += status != static_cast<uint8_t>(id) ? 1 : 0;
            });
        }
    });
    requester.join();
    std::thread replier([&] {
        for (uint32_t id = 0; id < kRequests; ++id) {
            registry.updateCBList(makeReply(id, {static_cast<uint8_t>(id)}));
        }
    });
    replier.join();
    ASSERT_TRUE(waitUntil([&] { return registry.isEmptyCBList(); }, 40s));
    registry.requestExit();
    for (auto& worker : workers) {
        worker.join();
    }
    for (uint32_t id = 0; id < kRequests; ++id) {
        EXPECT_EQ(calls[id].load(), 1) << "id " << id;
    }
    EXPECT_EQ(wrongStatus.load(), 0);
}

}  // namespace
