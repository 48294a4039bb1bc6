// The endpoints: the base server and client, the factory's identities, the
// call table, and the dummy server reversing a shared-memory buffer that the
// sharing process then sees reversed.
#include <gtest/gtest.h>
#include <ipc/IPCClient.h>
#include <ipc/IPCDummyServer.h>
#include <ipc/IPCServer.h>
#include <ipc/IPCServerFactory.h>
#include <ipc/IPCTypes.h>
#include <ipc/utils/Log.h>
#include <ipc_wrapper/VelaIPCServer.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <set>
#include <thread>
#include <vector>

#include "support/Descriptors.h"
#include "support/LogCapture.h"
#include "support/Waiting.h"

namespace {

using Kestrel::ca::CameraAlgorithmBuffer;
using Kestrel::ca::CameraAlgorithmOps;
using Kestrel::ca::CameraAlgorithmRequest;
using Kestrel::ipc::IPC_CMD;
using Kestrel::ipc::IPC_GROUP;
using Kestrel::ipc::IPC_PLATFORM_TYPE;
using Kestrel::ipc::IPC_PLATFORM_TYPE_DUMMY;
using Kestrel::ipc::IPC_PLATFORM_TYPE_VELA;
using Kestrel::ipc::IPCClient;
using Kestrel::ipc::IPCDummyClient;
using Kestrel::ipc::IPCDummyServer;
using Kestrel::ipc::IPCServer;
using Kestrel::ipc::IPCServerFactory;
using Kestrel::ipc::ShmMemInfo;
using Kestrel::ipc::utils::LogSetting;
using Kestrel::ipc::wrapper::VelaIPCServer;
using velacam::test::LogCapture;
using namespace std::chrono_literals;

// Expects every server operation, direct and through the call table, to
// report "not supported".
void expectAllServerOperationsFail(IPCServer& server) {
    const std::vector<CameraAlgorithmBuffer> noBuffers;
    EXPECT_EQ(server.init(), -1);
    EXPECT_EQ(server.registerBuffer(noBuffers), -1);
    EXPECT_EQ(server.deregisterBuffer({1, 2}), -1);
    EXPECT_EQ(server.handleRequest(CameraAlgorithmRequest{}), -1);
    const CameraAlgorithmOps ops = server.getCameraAlgorithmOps();
    EXPECT_EQ(ops.registerBuffer(noBuffers), -1);
    EXPECT_EQ(ops.deregisterBuffer({1}), -1);
    EXPECT_EQ(ops.handleRequest(CameraAlgorithmRequest{}), -1);
}

void expectAllClientOperationsFail(IPCClient& client) {
    const ShmMemInfo info{};
    const uint32_t fd = 3;
    EXPECT_EQ(client.init(1), -1);
    EXPECT_EQ(client.registerBuffer(1, fd, 4096), -1);
    EXPECT_EQ(client.registerBuffer(info), -1);
    EXPECT_EQ(client.registerBuffer(std::vector<ShmMemInfo>{info}), -1);
    EXPECT_EQ(client.deregisterBuffers(std::vector<ShmMemInfo>{info}), -1);
    EXPECT_EQ(client.requestSync(1, static_cast<IPC_CMD>(5)), -1);
    EXPECT_EQ(client.requestSync(1, static_cast<IPC_CMD>(5), 7), -1);
    EXPECT_EQ(client.requestSync(1, static_cast<IPC_CMD>(5), 7, static_cast<IPC_GROUP>(2)), -1);
}

// Defined first, so that on a plain run its threads make the first calls.
TEST(IPCServerFactoryTest, ConcurrentCallersGetTheSameServers) {
    std::vector<std::thread> callers;
    std::vector<IPCServer*> dummies(4);
    std::vector<IPCServer*> velas(4);
    for (size_t i = 0; i < dummies.size(); ++i) {
        callers.emplace_back([&, i] {
            dummies[i] = IPCServerFactory::getInstance(IPC_PLATFORM_TYPE_DUMMY);
            velas[i] = IPCServerFactory::getInstance(IPC_PLATFORM_TYPE_VELA);
        });
    }
    for (std::thread& caller : callers) {
        caller.join();
    }
    EXPECT_EQ(std::set<IPCServer*>(dummies.begin(), dummies.end()).size(), 1u);
    EXPECT_EQ(std::set<IPCServer*>(velas.begin(), velas.end()).size(), 1u);
}

TEST(IPCServerFactoryTest, EachTypeHasItsOwnServerOfItsOwnClass) {
    IPCServer* vela = IPCServerFactory::getInstance(IPC_PLATFORM_TYPE_VELA);
    IPCServer* dummy = IPCServerFactory::getInstance(IPC_PLATFORM_TYPE_DUMMY);
    IPCServer* base = IPCServerFactory::getInstance(static_cast<IPC_PLATFORM_TYPE>(0));
    ASSERT_NE(vela, nullptr);
    ASSERT_NE(dummy, nullptr);
    ASSERT_NE(base, nullptr);
    EXPECT_EQ(std::set<IPCServer*>({vela, dummy, base}).size(), 3u);
    EXPECT_NE(dynamic_cast<VelaIPCServer*>(vela), nullptr);
    EXPECT_NE(dynamic_cast<IPCDummyServer*>(dummy), nullptr);
    EXPECT_EQ(typeid(*base), typeid(IPCServer));
    EXPECT_EQ(IPCServerFactory::getInstance(IPC_PLATFORM_TYPE_DUMMY), dummy);
    EXPECT_EQ(IPCServerFactory::getInstance(IPC_PLATFORM_TYPE_VELA), vela);
}

TEST(IPCServerFactoryTest, UnknownTypesGiveTheBaseServerWhoseOperationsAllFail) {
    IPCServer* base = IPCServerFactory::getInstance(static_cast<IPC_PLATFORM_TYPE>(0));
    for (int type : {3, 7, -1, 0x7fffffff}) {
        EXPECT_EQ(IPCServerFactory::getInstance(static_cast<IPC_PLATFORM_TYPE>(type)), base)
                << type;
    }
    expectAllServerOperationsFail(*base);
    // The host platform server adds nothing to the base.
    expectAllServerOperationsFail(*IPCServerFactory::getInstance(IPC_PLATFORM_TYPE_VELA));
}

TEST(IPCClientTest, BaseAndDummyClientsReportEveryOperationUnsupported) {
    IPCClient base;
    IPCDummyClient dummy;
    expectAllClientOperationsFail(base);
    expectAllClientOperationsFail(dummy);
}

// A server that answers with its own values and keeps what it was given.
class RecordingServer : public IPCServer {
  public:
    int registerBuffer(const std::vector<CameraAlgorithmBuffer>& buffers) override {
        mBufferIds.clear();
        for (const CameraAlgorithmBuffer& buffer : buffers) {
            mBufferIds.push_back(buffer.bufferId);
        }
        return 10;
    }
    int deregisterBuffer(const std::vector<uint32_t>& bufferIds) override {
        mBufferIds = bufferIds;
        return 20;
    }
    int handleRequest(const CameraAlgorithmRequest& request) override {
        mRequestId = request.requestId;
        return 30;
    }

    std::vector<uint32_t> mBufferIds;
    uint32_t mRequestId = 0;
};

TEST(IPCServerTest, CallTableForwardsToTheOverridesOfTheServerItCameFrom) {
    RecordingServer server;
    const CameraAlgorithmOps ops = server.getCameraAlgorithmOps();
    CameraAlgorithmBuffer first;
    first.bufferId = 4;
    CameraAlgorithmBuffer second;
    second.bufferId = 9;
    EXPECT_EQ(ops.registerBuffer({first, second}), 10);
    EXPECT_EQ(server.mBufferIds, (std::vector<uint32_t>{4, 9}));
    EXPECT_EQ(ops.deregisterBuffer({6}), 20);
    EXPECT_EQ(server.mBufferIds, (std::vector<uint32_t>{6}));
    CameraAlgorithmRequest request;
    request.requestId = 77;
    EXPECT_EQ(ops.handleRequest(request), 30);
    EXPECT_EQ(server.mRequestId, 77u);
}

// One page of anonymous shared memory holding `values` as 32-bit integers.
class SharedPlane {
  public:
    explicit SharedPlane(const std::vector<int32_t>& values) {
        mFd = memfd_create("velacam-plane", MFD_CLOEXEC);
        if (mFd < 0 || ftruncate(mFd, kLength) != 0) {
            ADD_FAILURE() << "memfd: " << strerror(errno);
            return;
        }
        void* address = mmap(nullptr, kLength, PROT_READ | PROT_WRITE, MAP_SHARED, mFd, 0);
        if (address == MAP_FAILED) {
            ADD_FAILURE() << "mmap: " << strerror(errno);
            return;
        }
        mView = static_cast<int32_t*>(address);
        std::memcpy(mView, values.data(), values.size() * sizeof(int32_t));
    }
    ~SharedPlane() {
        if (mView != nullptr) {
            munmap(mView, kLength);
        }
        if (mFd >= 0) {
            close(mFd);
        }
    }
    SharedPlane(const SharedPlane&) = delete;
    SharedPlane& operator=(const SharedPlane&) = delete;

    int fd() const { return mFd; }
    // What this process sees through its own mapping.
    std::vector<int32_t> values(size_t count) const { return {mView, mView + count}; }

  private:
    static constexpr size_t kLength = 4096;
    int mFd = -1;
    int32_t* mView = nullptr;
};

CameraAlgorithmBuffer bufferOf(uint32_t id,
                               std::initializer_list<std::pair<int, uint64_t>> planes) {
    CameraAlgorithmBuffer buffer;
    buffer.bufferId = id;
    for (const auto& [fd, size] : planes) {
        buffer.planes.push_back({fd, size});
    }
    return buffer;
}

class IPCDummyServerTest : public ::testing::Test {
  protected:
    void TearDown() override { mLeaks.check(); }

    velacam::test::DescriptorLeakCheck mLeaks;
    LogCapture mCapture;
    IPCServer& mServer = *IPCServerFactory::getInstance(IPC_PLATFORM_TYPE_DUMMY);
};

TEST_F(IPCDummyServerTest, AnotherProcessReversesTheBufferThisProcessSees) {
    SharedPlane plane({1, 2, 3, 4, 5});
    const pid_t pid = fork();
    ASSERT_NE(pid, -1);
    if (pid == 0) {
        const int result = mServer.registerBuffer({bufferOf(1, {{plane.fd(), 4}})});
        _exit(result == -1 ? 0 : 1);
    }
    int status = 0;
    {
        velacam::test::Watchdog watchdog("waitpid", 20s);
        while (waitpid(pid, &status, 0) == -1 && errno == EINTR) {
        }
    }
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    // Only the first `size` integers are reversed.
    EXPECT_EQ(plane.values(5), (std::vector<int32_t>{4, 3, 2, 1, 5}));
}

TEST_F(IPCDummyServerTest, CallTableReachesTheDummyAndLeavesTheDescriptorsOpen) {
    SharedPlane first({10, 20});
    SharedPlane second({7, 8, 9});
    const CameraAlgorithmOps ops = mServer.getCameraAlgorithmOps();
    EXPECT_EQ(ops.registerBuffer({bufferOf(5, {{first.fd(), 2}, {second.fd(), 3}})}), -1);
    EXPECT_EQ(first.values(2), (std::vector<int32_t>{20, 10}));
    EXPECT_EQ(second.values(3), (std::vector<int32_t>{9, 8, 7}));
    EXPECT_TRUE(velacam::test::isOpen(first.fd()));
    EXPECT_TRUE(velacam::test::isOpen(second.fd()));
    EXPECT_EQ(ops.deregisterBuffer({5}), -1);
    EXPECT_EQ(ops.handleRequest(CameraAlgorithmRequest{}), -1);
    EXPECT_EQ(mServer.init(), -1);
}

TEST_F(IPCDummyServerTest, LogsEachPlaneBeforeAndAfterAndLeavesASingleElementAlone) {
    if (LogSetting::logLevel() < 1) {
        GTEST_SKIP() << "needs the debug property";
    }
    SharedPlane plane({42});
    EXPECT_EQ(mServer.registerBuffer({bufferOf(3, {{plane.fd(), 1}})}), -1);
    EXPECT_EQ(plane.values(1), (std::vector<int32_t>{42}));
    std::vector<std::string> texts;
    for (const auto& line : mCapture.lines()) {
        EXPECT_EQ(line.tag, "IPCDummyServer");
        texts.push_back(line.text);
    }
    EXPECT_EQ(texts, (std::vector<std::string>{
                             "[registerBuffer] buffer id(3)",
                             "[registerBuffer] plane size(1)",
                             "[registerBuffer] plane content[0]: before(42)",
                             "[registerBuffer] plane content[0]: after(42)",
                     }));
}

TEST_F(IPCDummyServerTest, EmptyBufferListDoesNothing) {
    EXPECT_EQ(mServer.registerBuffer({}), -1);
    EXPECT_TRUE(mCapture.lines().empty());
}

using IPCDummyServerDeathTest = IPCDummyServerTest;

TEST_F(IPCDummyServerDeathTest, PlaneOfSizeZeroCannotBeMappedAndEndsTheProcess) {
    SharedPlane plane({1});
    EXPECT_DEATH(mServer.registerBuffer({bufferOf(2, {{plane.fd(), 0}})}),
                 "IPCDummyServer: mmap failed\\(Invalid argument\\) "
                 "\\(registerBuffer\\)\\{#[0-9]+:ipc/IPCDummyServer\\}");
}

}  // namespace
