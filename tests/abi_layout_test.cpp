// The size and alignment of every exported class as prebuilt modules see them:
// a change that moves either fails here (make it only with a new major
// version). The mutexes inside several classes are the C library's, so
// x86-64 and aarch64 differ, and the device's (bionic) differs again.
#include <gtest/gtest.h>
#include <ipc/CBRegistry.h>
#include <ipc/CountingSemaphore.h>
#include <ipc/DefaultReactor.h>
#include <ipc/DequeHandler.h>
#include <ipc/EventHandler.h>
#include <ipc/IPCClient.h>
#include <ipc/IPCDummyServer.h>
#include <ipc/IPCServer.h>
#include <ipc/IPCServerFactory.h>
#include <ipc/IPCTypes.h>
#include <ipc/Message.h>
#include <ipc/MessageHandler.h>
#include <ipc/MessageLoop.h>
#include <ipc/MessageQueue.h>
#include <ipc/MessageTable.h>
#include <ipc/Poller.h>
#include <ipc/SocketEventHandler.h>
#include <ipc/SocketPair.h>
#include <ipc/UnixDomainSocket.h>
#include <ipc/utils/FunctionRunnable.h>
#include <ipc/utils/Log.h>
#include <ipc/utils/Process.h>
#include <ipc/utils/Runnable.h>
#include <ipc/utils/Thread.h>
#include <ipc/utils/ThreadPool.h>

#include <cstddef>
#include <utility>

namespace {

using namespace Kestrel::ipc;
using namespace Kestrel::ipc::utils;
using namespace Kestrel::ca;
using Layout = std::pair<size_t, size_t>;  // size, alignment

struct Row {
    const char* name;
    Layout actual;
    size_t expected[6];  // size and alignment on x86-64, aarch64, 32-bit Arm
};

// clang-format off
#define ROW(T, ...) Row{#T, {sizeof(T), alignof(T)}, {__VA_ARGS__}}
const Row kRows[] = {
    //  class                     x86-64    aarch64   32-bit Arm
    ROW(Message,                  184, 8,   200, 8,   128, 8),
    ROW(Message::Payload,          48, 8,    48, 8,    24, 4),
    ROW(UnixDomainSocket,          24, 8,    24, 8,    24, 8),
    ROW(SocketPair,                 8, 4,     8, 4,     8, 4),
    ROW(EventHandler,              16, 8,    16, 8,    12, 4),
    ROW(SocketEventHandler,        56, 8,    56, 8,    48, 8),
    ROW(Poller,                    80, 8,    80, 8,    44, 4),
    ROW(DefaultReactor,           224, 8,   240, 8,   160, 8),
    ROW(DequeHandler,              24, 8,    24, 8,    12, 4),
    ROW(CountingSemaphore,        120, 8,   128, 8,   104, 8),
    ROW(MessageHandler,             8, 8,     8, 8,     4, 4),
    ROW(MessageQueue,             152, 8,   152, 8,   100, 4),
    ROW(MessageLoop,              160, 8,   160, 8,   112, 8),
    ROW(MessageTable,             168, 8,   176, 8,   120, 8),
    ROW(CBRegistry,               120, 8,   128, 8,    64, 4),
    ROW(CBRegistry::CBList,       144, 8,   152, 8,   104, 8),
    ROW(Runnable,                   8, 8,     8, 8,     4, 4),
    ROW(FunctionRunnable,          40, 8,    40, 8,    20, 4),
    ROW(Thread,                    24, 8,    24, 8,    12, 4),
    ROW(ThreadData,                24, 8,    24, 8,    12, 4),
    ROW(ThreadPool,               256, 8,   272, 8,   168, 8),
    ROW(ThreadPool::ExitListener,   8, 8,     8, 8,     4, 4),
    ROW(Process,                   32, 8,    32, 8,    16, 4),
    ROW(LogSetting,                 1, 1,     1, 1,     1, 1),
    ROW(IPCServer,                  8, 8,     8, 8,     4, 4),
    ROW(IPCClient,                  8, 8,     8, 8,     4, 4),
    ROW(IPCServerFactory,           1, 1,     1, 1,     1, 1),
    ROW(IPCDummyServer,             8, 8,     8, 8,     4, 4),
    ROW(IPCDummyClient,             8, 8,     8, 8,     4, 4),
    ROW(ShmMemInfo,                16, 8,    16, 8,    16, 8),
    ROW(CameraAlgorithmBuffer,     32, 8,    32, 8,    16, 4),
    ROW(CameraAlgorithmRequest,    32, 8,    32, 8,    16, 4),
    ROW(CameraAlgorithmOps,        96, 8,    96, 8,    48, 4),
};
// clang-format on

TEST(AbiLayoutTest, EveryExportedClassKeepsItsSizeAndAlignment) {
#if defined(__x86_64__)
    constexpr int kArch = 0;
#elif defined(__aarch64__)
    constexpr int kArch = 1;
#elif defined(__arm__)
    constexpr int kArch = 2;
#else
    constexpr int kArch = 0;
    GTEST_SKIP() << "no recorded layout for this architecture";
#endif
    for (const Row& row : kRows) {
        EXPECT_EQ(row.actual, Layout(row.expected[2 * kArch], row.expected[2 * kArch + 1]))
                << row.name;
    }
}

}  // namespace
