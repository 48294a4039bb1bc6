// The server factory, and the dummy server reversing the planes of buffers.
#include <gtest/gtest.h>
#include <ipc/IPCDummyServer.h>
#include <ipc/IPCServer.h>
#include <ipc/IPCServerFactory.h>
#include <ipc/IPCTypes.h>
#include <ipc_wrapper/VelaIPCServer.h>

#include <cstdint>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <typeinfo>
#include <vector>

#include "support/Descriptors.h"
#include "support/RawPeer.h"

namespace {

using namespace Kestrel::ca;
using namespace Kestrel::ipc;
using namespace velacam::test;
using Kestrel::ipc::wrapper::VelaIPCServer;

IPCServer* serverOf(int type) {
    return IPCServerFactory::getInstance(static_cast<IPC_PLATFORM_TYPE>(type));
}

// Defined first, so that on a plain run its threads make the first calls.
TEST(IPCServerFactoryTest, EveryCallerGetsTheOneServerOfEachTypeOfItsOwnClass) {
    const std::vector<int> types = {
            IPC_PLATFORM_TYPE_VELA, IPC_PLATFORM_TYPE_DUMMY, 0, 3, -1, 0x7fffffff};
    std::vector<std::vector<IPCServer*>> seen(4);
    std::vector<std::thread> callers;
    for (auto& servers : seen) {
        callers.emplace_back([&types, &servers] {
            for (int type : types) {
                servers.push_back(serverOf(type));
            }
        });
    }
    for (std::thread& caller : callers) {
        caller.join();
    }
    EXPECT_EQ(seen, std::vector<std::vector<IPCServer*>>(seen.size(), seen[0]));
    const std::vector<IPCServer*>& servers = seen[0];
    IPCServer* base = servers[2];  // and every other unknown type's
    EXPECT_EQ(servers, (std::vector<IPCServer*>{servers[0], servers[1], base, base, base, base}));
    EXPECT_EQ(std::set<IPCServer*>(servers.begin(), servers.end()).size(), 3u);
    EXPECT_NE(dynamic_cast<VelaIPCServer*>(servers[0]), nullptr);
    EXPECT_NE(dynamic_cast<IPCDummyServer*>(servers[1]), nullptr);
    EXPECT_EQ(typeid(*base), typeid(IPCServer));
}

FileDescriptor planeOf(const std::vector<int32_t>& values) {
    return memoryFile(std::string(reinterpret_cast<const char*>(values.data()),
                                  values.size() * sizeof(int32_t)));
}

std::vector<int32_t> valuesIn(const FileDescriptor& plane) {
    const std::string bytes = contentsOf(plane.get());
    std::vector<int32_t> values(bytes.size() / sizeof(int32_t));
    std::memcpy(values.data(), bytes.data(), values.size() * sizeof(int32_t));
    return values;
}

class IPCDummyServerTest : public ::testing::Test {
  protected:
    ScopedLeakCheck mLeaks;
    IPCServer& mServer = *serverOf(IPC_PLATFORM_TYPE_DUMMY);
};

TEST_F(IPCDummyServerTest, CallTableReachesTheDummyWhichReversesEachPlane) {
    EXPECT_EQ(mServer.registerBuffer({}), -1);
    const FileDescriptor first = planeOf({10, 20});
    const FileDescriptor single = planeOf({42});
    const CameraAlgorithmOps ops = mServer.getCameraAlgorithmOps();
    EXPECT_EQ(ops.registerBuffer({CameraAlgorithmBuffer{5, {{first.get(), 2}, {single.get(), 1}}}}),
              -1);
    EXPECT_EQ(valuesIn(first), (std::vector<int32_t>{20, 10}));
    EXPECT_EQ(valuesIn(single), (std::vector<int32_t>{42}));
    EXPECT_TRUE(isOpen(first.get()));
    EXPECT_TRUE(isOpen(single.get()));
    EXPECT_EQ(ops.deregisterBuffer({5}), -1);  // an empty entry would throw
    EXPECT_EQ(ops.handleRequest(CameraAlgorithmRequest{}), -1);
}

using IPCDummyServerDeathTest = IPCDummyServerTest;

TEST_F(IPCDummyServerDeathTest, PlaneOfSizeZeroCannotBeMappedAndEndsTheProcess) {
    const FileDescriptor plane = planeOf({1});
    const std::vector<CameraAlgorithmBuffer> empty{{2, {{plane.get(), 0}}}};
    EXPECT_DEATH(mServer.registerBuffer(empty),
                 "IPCDummyServer: mmap failed\\(Invalid argument\\) "
                 "\\(registerBuffer\\)\\{#[0-9]+:ipc/IPCDummyServer\\}");
}

}  // namespace
