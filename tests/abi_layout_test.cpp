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
#include <vector>

namespace {

using namespace Kestrel::ipc;
using namespace Kestrel::ipc::utils;
using namespace Kestrel::ca;
using Layout = std::pair<size_t, size_t>;  // size, alignment

struct Row {
    const char* names;
    std::vector<Layout> actual;
    size_t expected[6];  // size and alignment on x86-64, aarch64, 32-bit Arm
};

template <typename... T>
std::vector<Layout> layoutsOf() {
    return {Layout(sizeof(T), alignof(T))...};
}

// One row for each layout, naming every class that has it.
// clang-format off
#define ROW(s0, a0, s1, a1, s2, a2, ...) \
    Row{#__VA_ARGS__, layoutsOf<__VA_ARGS__>(), {s0, a0, s1, a1, s2, a2}}
const Row kRows[] = {
    //  x86-64    aarch64   32-bit Arm   classes
    ROW( 184, 8,   200, 8,   128, 8,  Message),
    ROW(  48, 8,    48, 8,    24, 4,  Message::Payload),
    ROW(  24, 8,    24, 8,    24, 8,  UnixDomainSocket),
    ROW(   8, 4,     8, 4,     8, 4,  SocketPair),
    ROW(  16, 8,    16, 8,    12, 4,  EventHandler),
    ROW(  56, 8,    56, 8,    48, 8,  SocketEventHandler),
    ROW(  80, 8,    80, 8,    44, 4,  Poller),
    ROW( 224, 8,   240, 8,   160, 8,  DefaultReactor),
    ROW(  24, 8,    24, 8,    12, 4,  DequeHandler, Thread, ThreadData),
    ROW( 120, 8,   128, 8,   104, 8,  CountingSemaphore),
    ROW(   8, 8,     8, 8,     4, 4,  MessageHandler, Runnable, ThreadPool::ExitListener),
    ROW(   8, 8,     8, 8,     4, 4,  IPCServer, IPCClient, IPCDummyServer, IPCDummyClient),
    ROW( 152, 8,   152, 8,   100, 4,  MessageQueue),
    ROW( 160, 8,   160, 8,   112, 8,  MessageLoop),
    ROW( 168, 8,   176, 8,   120, 8,  MessageTable),
    ROW( 120, 8,   128, 8,    64, 4,  CBRegistry),
    ROW( 144, 8,   152, 8,   104, 8,  CBRegistry::CBList),
    ROW(  40, 8,    40, 8,    20, 4,  FunctionRunnable),
    ROW( 256, 8,   272, 8,   168, 8,  ThreadPool),
    ROW(  32, 8,    32, 8,    16, 4,  Process, CameraAlgorithmBuffer, CameraAlgorithmRequest),
    ROW(   1, 1,     1, 1,     1, 1,  LogSetting, IPCServerFactory),
    ROW(  16, 8,    16, 8,    16, 8,  ShmMemInfo),
    ROW(  96, 8,    96, 8,    48, 4,  CameraAlgorithmOps),
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
    for (const Row& r : kRows) {
        for (size_t i = 0; i < r.actual.size(); ++i) {
            EXPECT_EQ(r.actual[i], Layout(r.expected[2 * kArch], r.expected[2 * kArch + 1]))
                    << "class " << i + 1 << " of " << r.names;
        }
    }
}

}  // namespace
