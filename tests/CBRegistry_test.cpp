// CBRegistry: one-shot callbacks, the status byte, the list and its waiters.
#include <gtest/gtest.h>
#include <ipc/CBRegistry.h>
#include <ipc/Message.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "support/LogCapture.h"
#include "support/Messages.h"
#include "support/Waiting.h"

namespace {

using namespace Kestrel::ipc;
using namespace velacam::test;

class CBRegistryTest : public ::testing::Test {
  protected:
    LogCapture capture;
    Watchdog watchdog{"CBRegistry case", 60s};
    std::vector<int> calls;
};

TEST_F(CBRegistryTest, OneCallbackPerIdIsCalledOnceWithTheFirstDataByteUnsigned) {
    auto token = std::make_shared<int>(0);
    {
        CBRegistry registry(1);
        registry.registerCB(*makeMessage(12), [&](uint8_t status) { calls.push_back(status); });
        registry.registerCB(*makeMessage(12), [&](uint8_t) { calls.push_back(-1); });
        EXPECT_EQ(capture.levelOf("CB has registered, ERROR with msgID=12"), 1u);
        // No status byte: rejected, the callback stays for a well-formed reply.
        registry.unRegisterCB(makeMessage(12));            // header only
        registry.unRegisterCB(makeMessage(12, {}, {-1}));  // a descriptor but no data byte
        EXPECT_EQ(capture.count("CB status is missing, ERROR with msgID=12"), 2u);
        EXPECT_TRUE(calls.empty());
        registry.unRegisterCB(makeMessage(12, {0xF0, 9, 9}));
        EXPECT_EQ(calls, (std::vector<int>{0xF0}));
        registry.unRegisterCB(makeMessage(12, {5}));
        EXPECT_EQ(capture.count("CB has not registered, ERROR with msgID=12"), 1u);
        EXPECT_EQ(calls.size(), 1u);

        // An empty callback throws, its entry already removed.
        registry.registerCB(*makeMessage(40), std::function<void(uint8_t)>());
        EXPECT_THROW(registry.unRegisterCB(makeMessage(40, {0})), std::bad_function_call);
        registry.unRegisterCB(makeMessage(40, {0}));
        EXPECT_EQ(capture.count("CB has not registered, ERROR with msgID=40"), 1u);

        // A callback may register its own id again: called without the lock, its entry gone.
        registry.registerCB(*makeMessage(21), [&](uint8_t) {
            registry.registerCB(*makeMessage(21), [&](uint8_t status) { calls.push_back(status); });
        });
        registry.unRegisterCB(makeMessage(21, {1}));
        registry.unRegisterCB(makeMessage(21, {2}));
        EXPECT_EQ(calls, (std::vector<int>{0xF0, 2}));
        EXPECT_EQ(capture.countContaining("msgID=21"), 0u);

        // Left registered at destruction: destroyed, never called.
        registry.registerCB(*makeMessage(50), [token, this](uint8_t) { calls.push_back(50); });
        EXPECT_EQ(token.use_count(), 2);
    }
    EXPECT_EQ(token.use_count(), 1);
    EXPECT_EQ(calls.size(), 2u);
}

// The documented worker pattern, with one worker more than declared.
TEST_F(CBRegistryTest, ListInArrivalOrderAndWorkersCompleteEveryCallbackUntilTheDeclaredExit) {
    constexpr uint32_t kRequests = 2000;
    CBRegistry registry(2);
    EXPECT_TRUE(registry.isEmptyCBList());
    registry.updateCBList(makeMessage(1));
    registry.updateCBList(makeMessage(2));
    std::unique_ptr<Message> out;
    for (uint32_t id : {1u, 2u}) {
        ASSERT_TRUE(registry.waitCB());
        ASSERT_TRUE(registry.extractCBList(out));
        EXPECT_EQ(out->id(), id);
    }
    EXPECT_FALSE(registry.extractCBList(out));
    ASSERT_TRUE(out);  // left alone
    EXPECT_TRUE(registry.isEmptyCBList());

    std::vector<std::atomic<int>> called(kRequests);
    std::atomic<int> wrongStatus{0};
    std::atomic<uint32_t> completed{0};
    std::atomic<int> returned{0};
    std::array<std::atomic<pid_t>, 3> tids{};
    std::vector<std::thread> workers;
    for (int w = 0; w < 3; ++w) {
        workers.emplace_back([&, w] {
            tids[w] = gettid();
            std::unique_ptr<Message> reply;
            while (registry.waitCB()) {
                if (registry.extractCBList(reply)) {
                    registry.unRegisterCB(std::move(reply));
                }
            }
            ++returned;
        });
    }
    for (uint32_t id = 0; id < kRequests; ++id) {
        registry.registerCB(*makeMessage(id), [&, id](uint8_t status) {
            ++called[id];
            wrongStatus += status != static_cast<uint8_t>(id) ? 1 : 0;
            ++completed;
        });
        registry.updateCBList(makeMessage(id, {static_cast<uint8_t>(id)}));
    }
    ASSERT_TRUE(waitUntil([&] { return completed.load() == kRequests; }, 40s));
    for (uint32_t id = 0; id < kRequests; ++id) {
        EXPECT_EQ(called[id].load(), 1) << "id " << id;
    }
    EXPECT_EQ(wrongStatus.load(), 0);
    for (const auto& tid : tids) {
        ASSERT_TRUE(waitUntil([&] { return tid != 0; }) && waitUntilAsleep(tid));
    }
    expectExitWakesExactly(
            returned, 2, [&] { registry.notifyCB(); }, [&] { registry.requestExit(); });
    EXPECT_EQ(capture.count("CBRegistry is exiting"), 2u);
    registry.updateCBList(makeMessage(1));  // accepted after exit; frees the surplus worker
    for (auto& worker : workers) {
        worker.join();
    }
    EXPECT_FALSE(registry.isEmptyCBList());
}

}  // namespace
