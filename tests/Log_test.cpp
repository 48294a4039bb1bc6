// Lines from Message (core module) and CountingSemaphore (sync module). CTest
// runs this suite with the debug property set, and the gate without.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <ipc/CBRegistry.h>
#include <ipc/CountingSemaphore.h>
#include <ipc/DefaultReactor.h>
#include <ipc/IPCDummyServer.h>
#include <ipc/Message.h>
#include <ipc/MessageHandler.h>
#include <ipc/MessageLoop.h>
#include <ipc/MessageQueue.h>
#include <ipc/MessageTable.h>
#include <ipc/Poller.h>
#include <ipc/SocketPair.h>
#include <ipc/UnixDomainSocket.h>
#include <ipc/utils/FunctionRunnable.h>
#include <ipc/utils/Log.h>
#include <ipc/utils/Process.h>
#include <ipc/utils/Thread.h>
#include <ipc/utils/ThreadPool.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <ulog/ULogger.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <list>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "support/EventFdHandler.h"
#include "support/LogCapture.h"
#include "support/Messages.h"
#include "support/Waiting.h"

namespace {

using namespace Kestrel::ipc;
using namespace Kestrel::ipc::utils;
using namespace velacam::test;
using Kestrel::utils::sys::FileDescriptor;
using Kestrel::Utils::ULog::ULogger;

// Logs "[Payload] data_offset(3)" (among other debug lines) from ipc/Message.
void logOneDebugLine() { (void)makeMessage(0, {1, 2, 3})->payload(); }

// Logs the warning "no payload exists" from ipc/Message.
void logOneWarning() { (void)Message().payload(); }

TEST(LogGate, PropertyReadAtLoadGatesDebugLinesButNotWarnings) {
    const char* value = std::getenv("vendor.debug.ipc.framework.log");
    EXPECT_EQ(LogSetting::logLevel(), value != nullptr ? std::atoi(value) : 0);
    LogCapture capture;
    logOneDebugLine();
    EXPECT_EQ(capture.count("[Payload] data_offset(3)"), LogSetting::logLevel() >= 1 ? 1u : 0u);
    capture.clear();
    logOneWarning();
    ASSERT_EQ(capture.lines().size(), 1u);
    const LogLine line = capture.lines()[0];
    EXPECT_EQ(std::tie(line.text, line.level, line.tag, line.moduleId),
              std::make_tuple("no payload exists", 2u, "Message", 0x401034u));
}

class LogSinks : public ::testing::Test {
  protected:
    void SetUp() override {
        if (LogSetting::logLevel() < 1) {
            GTEST_SKIP() << "needs the debug property";
        }
    }

    LogCapture capture;
};

// A site declared here behaves as one in the library's own sources.
constexpr LogSite kLogSite{"Thread", "ipc/utils/Thread", kLogModuleCore};

void run(int value) { IPC_LOGE("broken %d", value); }

int sideEffects = 0;
int countedArgument() { return ++sideEffects; }

// Each gate once, as the logging notes list them: level 5 and the file's
// module mask for debug lines (arguments unevaluated when shut), 3 info, 2 warnings.
TEST_F(LogSinks, DetailsLevelAndModuleMaskGateLinesBeforeTheirArgumentsAreEvaluated) {
    ULogger::sDetailsLevel = 4;
    IPC_LOGD("[%s] %d", __func__, countedArgument());
    EXPECT_EQ(sideEffects, 0);
    ULogger::sDetailsLevel = 5;
    IPC_LOGD("[%s] %d", __func__, countedArgument());
    EXPECT_EQ(sideEffects, 1);
    for (const auto& [level, lines] : {std::pair{1u, 1u}, {2u, 2u}, {3u, 3u}}) {
        capture.clear();
        ULogger::sDetailsLevel = level;
        logOneWarning();
        IPC_LOGI("an info line");
        IPC_LOGE("an error line");
        EXPECT_EQ(capture.lines().size(), lines) << "details level " << level;
    }

    ULogger::sDetailsLevel = 5;
    for (const auto& [mask, coreLines, syncLines] :
         {std::tuple{0x401000u, 1u, 0u}, {0x101000u, 0u, 1u}, {0x400000u, 0u, 0u}}) {
        capture.clear();
        ULogger::sNormalDetailsMask = mask;
        logOneDebugLine();
        CountingSemaphore(1).release(1);
        EXPECT_EQ(capture.count("[Payload] data_offset(3)"), coreLines) << std::hex << mask;
        EXPECT_EQ(capture.countContaining("[release] before releasing!"), syncLines)
                << std::hex << mask;
    }
}

TEST_F(LogSinks, ModeSelectsTheSinksWhichFrameTheirLinesAndTruncateLongOnes) {
    for (uint32_t mode : {0u, 1u, 2u, 8u}) {
        capture.clear();
        ULogger::sMode = mode;
        testing::internal::CaptureStderr();
        logOneWarning();
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(err.find("no payload exists") != std::string::npos, mode == 1) << mode;
        EXPECT_EQ(capture.count("no payload exists"), mode >= 2 ? 1u : 0u) << mode;
    }

    ULogger::sMode = 3;  // both sinks: the frame "prefix[tag] file:line function() message"
    testing::internal::CaptureStderr();
    run(7);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(
            std::regex_match(err, std::regex("E \\[Thread\\] ipc/utils/Thread:([0-9]+) run\\(\\) "
                                             "broken 7 \\(run\\)\\{#\\1:ipc/utils/Thread\\}\n")))
            << err;
    EXPECT_EQ(capture.levelOf("broken 7"), 1u);  // no frame, no suffix

    capture.clear();  // longer than the buffer
    ULogger::sMode = 2;
    const std::string longText(2000, 'x');
    logging::record(kLogSite, logging::kWarning, "%s", longText.c_str());
    ASSERT_EQ(capture.lines().size(), 1u);
    EXPECT_EQ(capture.lines()[0].text, std::string(1023, 'x'));
    EXPECT_EQ(capture.lines()[0].length, 2000);
}

// One call of each operation whose debug lines begin "[%s]": the first line of
// its class (or the one containing `text`) names it, and every debug line of
// the run names an operation of its class here, whatever helper it went through.
TEST_F(LogSinks, DebugLinesNameThePublicOperationNeverAHelper) {
    struct Operation {
        const char* tag;
        const char* name;
        std::function<void()> call;
        const char* text = "";  // which line: the first of `tag` that contains it
    };
    ULogger::sDetailsLevel = 5;
    auto handler = std::make_shared<EventFdHandler>();
    DefaultReactor reactor;
    Poller poller;
    SocketPair pair = UnixDomainSocket::createPairedSocket(65536, 65536, false);
    UnixDomainSocket near;
    UnixDomainSocket far;
    near.bind(std::move(pair.first));
    far.bind(std::move(pair.second));
    CountingSemaphore semaphore(1);
    MessageQueue queue;
    MessageTable table(1);
    CBRegistry registry(1);
    Message message;
    const uint8_t packed[] = {1, 2, 3};
    const Message::Payload three(packed, 3, 0);
    Process parent;
    int child = -1;
    FileDescriptor plane(memfd_create("plane", MFD_CLOEXEC), 0);
    ASSERT_EQ(ftruncate(plane.get(), 4096), 0);
    const std::vector<Operation> operations = {
            {"Message", "setPayload", [&] { message.setPayload(three); }},
            {"Message", "payload", [&] { (void)message.payload(); }},
            {"Message", "Payload", [&] { Message::Payload(packed, 3, 0); }},
            {"MessageHandler", "operator()",
             [] {
                 MessageHandler().handleMessage(
                         makeMessage(1, {}, {::open("/dev/null", O_RDONLY | O_CLOEXEC)}));
             }},
            {"UnixDomainSocket", "createPairedSocket",
             [] { UnixDomainSocket::createPairedSocket(4096, 4096, false); }},
            {"UnixDomainSocket", "sendDataAndFileDescriptors",
             [&] { ASSERT_EQ(near.send(*makeMessage(2, {7})), 0); }},
            {"UnixDomainSocket", "receiveDataAndFileDescriptors",
             [&] { ASSERT_EQ(far.recv(&message), 0); }},
            {"Poller", "registerPollEvent",
             [&] { poller.registerPollEvent(handler->fd(), POLLIN); }},
            {"Poller", "poll", [&] { EXPECT_TRUE(poller.poll(1ms).empty()); }},
            {"Poller", "dump", [&] { poller.dump(); }},
            {"Poller", "unregisterPollEvent",
             [&] { EXPECT_TRUE(poller.unregisterPollEvent(handler->fd())); }, "is unregistered"},
            {"DefaultReactor", "registerEventHandler",
             [&] { EXPECT_TRUE(reactor.registerEventHandler(handler)); }},
            {"DefaultReactor", "requestExit", [&] { reactor.requestExit(); }},
            {"DefaultReactor", "handleExitEvent",
             [&] {
                 EXPECT_TRUE(reactor.handleExitEvent({-1, POLLIN}));
             }},
            {"DefaultReactor", "handlePollEvent",
             [&] {
                 handler->ring();
                 reactor.handlePollEvent({{handler->fd(), POLLIN}}, {handler});
             }},
            {"DefaultReactor", "loop", [&] { reactor.loop(1ms); }},  // exit already requested
            {"DefaultReactor", "removeEventHandlerByFd",
             [&] { EXPECT_TRUE(reactor.removeEventHandler(handler)); }},
            {"CountingSemaphore", "release", [&] { semaphore.release(0); }},
            {"CountingSemaphore", "acquire",
             [&] {
                 auto acquired = startBlocked([&] { semaphore.acquire(); });
                 semaphore.release(1);
                 acquired.get();
             },
             "finishing waiting"},
            {"MessageQueue", "enqueueMessage", [&] { queue.enqueueMessage(makeMessage(3), 0ms); }},
            {"MessageQueue", "nextMessage", [&] { EXPECT_TRUE(queue.nextMessage(0ms).message); }},
            {"MessageQueue", "requestExit", [&] { queue.requestExit(); }},
            {"MessageLoop", "dispatchMessages",
             [&] {
                 MessageLoop loop;
                 loop.messageQueue().enqueueMessage(makeMessage(4), 0ms);
                 std::thread dispatcher([&loop] { loop.dispatchMessages(); });
                 EXPECT_TRUE(capture.waitFor("message dispatched"));
                 loop.requestExit();
                 dispatcher.join();
             }},
            {"MessageTable", "update", [&] { table.update(makeMessage(5)); }},
            {"MessageTable", "wait", [&] { EXPECT_TRUE(table.wait()); }},
            {"MessageTable", "extract",
             [&] {
                 std::list<std::unique_ptr<Message>> out;
                 EXPECT_TRUE(table.extract(out));
             }},
            {"MessageTable", "requestExit", [&] { table.requestExit(); }},
            {"CBRegistry", "unRegisterCB",
             [&] {
                 registry.registerCB(*makeMessage(6), [](uint8_t) {});
                 auto reply = makeMessage(6, {0});
                 reply->setHeader(6, 0, Message::kFlagReply, 1, 0);
                 registry.unRegisterCB(std::move(reply));
             }},
            {"CBRegistry", "update", [&] { registry.updateCBList(makeMessage(7)); }},
            {"CBRegistry", "wait", [&] { EXPECT_TRUE(registry.waitCB()); }},
            {"CBRegistry", "requestExit", [&] { registry.requestExit(); }},
            {"Thread", "run",
             [] {
                 Thread thread(new FunctionRunnable([] {}), true);
                 thread.start();
             }},
            {"ThreadPool", "run", [] { ThreadPool pool(1); }},
            {"Process", "create", [&] { child = parent.create("/bin/true", {}, {}).pid(); }},
            {"Process", "operator()", [&] { parent.removeFromObservation(child); }},
            {"Process", "terminate", [] { EXPECT_FALSE(Process(-1).terminate()); }},
            {"IPCDummyServer", "registerBuffer",
             [&] {
                 IPCDummyServer().registerBuffer({{1, {{plane.get(), 4}}}});
             }},
    };

    Watchdog watchdog("one call of each operation", 60s);
    std::map<std::string, std::set<std::string>> names;
    std::vector<LogLine> lines;
    for (const Operation& operation : operations) {
        names[operation.tag].insert(operation.name);
        capture.clear();
        operation.call();
        const std::vector<LogLine> logged = capture.lines();
        const auto first = std::find_if(logged.begin(), logged.end(), [&](const LogLine& line) {
            return line.level == 5 && line.tag == operation.tag &&
                   line.text.find(operation.text) != std::string::npos;
        });
        ASSERT_NE(first, logged.end()) << operation.tag << "::" << operation.name;
        EXPECT_EQ(first->text.rfind("[" + std::string(operation.name) + "] ", 0), 0u)
                << operation.tag << ": " << first->text;
        lines.insert(lines.end(), logged.begin(), logged.end());
    }
    if (child > 0) {
        waitpid(child, nullptr, 0);
    }
    for (const LogLine& line : lines) {
        const size_t end = line.text.find("] ");
        if (line.level != 5 || line.text[0] != '[' || end == std::string::npos) {
            continue;
        }
        EXPECT_EQ(names[line.tag].count(line.text.substr(1, end - 1)), 1u)
                << line.tag << ": " << line.text;
    }
}

// Shows on standard error the fatal path's order: record, flush, assertion.
class EchoingLogger : public ULogger {
  public:
    void record(uint32_t, const char*, uint32_t level, const char* text, int) override {
        fprintf(stderr, "recorded(%u): %s\n", level, text);
    }
    void flush(int reason) override { fprintf(stderr, "flushed(%d)\n", reason); }
};

using LogFatalDeathTest = LogSinks;

TEST_F(LogFatalDeathTest, FatalCheckRecordsFlushesThenAbortsWithTheMessageAndItsOrigin) {
    ULogger::sMode = 0;  // no sink selected: the assertion still ends the process
    EXPECT_DEATH(Message().setHeader(std::vector<uint8_t>(23)),
                 "Message: the data size\\(23\\) is not the same as the header size\\(24\\) "
                 "\\(setHeader\\)\\{#[0-9]+:ipc/Message\\}");

    EchoingLogger echo;
    ULogger::sULogger = &echo;
    ULogger::sMode = 2;
    EXPECT_DEATH(Message().setHeader(std::vector<uint8_t>(25)),
                 "recorded\\(1\\): the data size\\(25\\) is not the same as the header "
                 "size\\(24\\)\nflushed\\(1\\)\nMessage: the data size");
    ULogger::sULogger = &capture;
}

}  // namespace
