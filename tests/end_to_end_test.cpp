// A request crossing two processes and its reply coming back.
//
// The camera side (this process) sends requests, each carrying a pipe's write
// end, over a socket pair; its reactor thread receives the replies and matches
// them to callbacks through a CBRegistry. The algorithm side (a forked child)
// receives each request on its reactor thread, queues it on a MessageLoop
// whose thread hands it to the request's handler; the handler writes into the
// pipe it was given, closes it, and replies with a status byte.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <ipc/CBRegistry.h>
#include <ipc/DefaultReactor.h>
#include <ipc/Message.h>
#include <ipc/MessageHandler.h>
#include <ipc/MessageLoop.h>
#include <ipc/SocketEventHandler.h>
#include <ipc/UnixDomainSocket.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "support/Descriptors.h"
#include "support/FunctionRunnable.h"
#include "support/Messages.h"
#include "support/RawPeer.h"
#include "support/ReactorThread.h"
#include "support/Waiting.h"

namespace {

using namespace Kestrel::ipc;
using namespace velacam::test;

constexpr uint32_t kWork = 1;
constexpr uint32_t kQuit = 2;
constexpr uint32_t kFirstId = 100;
constexpr uint32_t kRequests = 32;

// The algorithm side's exit status: 0, or what went wrong first.
enum ServiceResult : int {
    kServiceOk = 0,
    kReceiveFailed = 10,
    kBadRequest = 11,
    kReplyFailed = 12,
    kWrongCount = 13,
    kLeakedDescriptor = 14,
};

// What the algorithm side answers for a request carrying `seed`; it is also
// the byte it writes into the request's pipe.
uint8_t answerFor(uint32_t seed) { return static_cast<uint8_t>(seed * 3 + 1); }

// The algorithm side's handler of requests, called on its loop's thread.
// `finish` records a result and ends both of the side's loops.
class ServiceHandler : public MessageHandler {
  public:
    ServiceHandler(SocketEventHandler& socket, std::function<void(int)> finish)
        : mSocket(socket), mFinish(std::move(finish)) {}

    using MessageHandler::handleMessage;
    void handleMessage(std::unique_ptr<Message> request) override {
        if (request->type() == kQuit) {
            mFinish(mHandled.size() == kRequests ? kServiceOk : kWrongCount);
            return;
        }
        const uint32_t id = request->id();  // handling the message clears its header
        const Message::Payload payload = request->payload();
        const uint8_t answer = payload.data.empty() ? 0 : answerFor(payload.data[0]);
        if (request->type() != kWork || payload.data.size() != 1 || payload.fds.size() != 1 ||
            !mHandled.insert(id).second || write(payload.fds[0], &answer, 1) != 1) {
            mFinish(kBadRequest);
        }
        MessageHandler::handleMessage(*request);  // closes the descriptor it carried

        const auto reply = makeMessage(id, {answer}, {}, nullptr, kWork);
        reply->setHeader(id, kWork, Message::kFlagReply, 1, 0);
        if (mSocket.sendMessage(*reply) != 0) {
            mFinish(kReplyFailed);
        }
    }

  private:
    SocketEventHandler& mSocket;
    std::function<void(int)> mFinish;
    std::set<uint32_t> mHandled;  // loop thread only
};

// The algorithm side, run in the child on its end of the pair; returns a
// ServiceResult.
int runService(FileDescriptor end) {
    std::set<int> expected = openDescriptors();
    expected.erase(end.get());
    std::atomic<int> result{kServiceOk};
    {
        DefaultReactor reactor;
        MessageLoop loop;
        const auto finish = [&](int code) {
            int none = kServiceOk;
            result.compare_exchange_strong(none, code);
            reactor.requestExit();
            loop.requestExit();
        };
        auto socket = std::make_shared<SocketEventHandler>(std::move(end), EventType::READ);
        auto service = std::make_shared<ServiceHandler>(*socket, finish);
        // Runs on the reactor's thread: read the request, queue it for the loop.
        socket->setRunnable(std::make_shared<FunctionRunnable>([&, raw = socket.get()] {
            auto request = std::make_unique<Message>(service);
            if (raw->receiveMessage(request.get()) != 0) {
                finish(kReceiveFailed);
                return;
            }
            loop.messageQueue().enqueueMessage(std::move(request), 0ms);
        }));
        if (!reactor.registerEventHandler(socket)) {
            return kReceiveFailed;
        }
        std::thread loopThread([&] { loop.dispatchMessages(); });
        reactor.loop(0ms);
        loopThread.join();
    }
    if (result == kServiceOk && openDescriptors() != expected) {
        return kLeakedDescriptor;
    }
    return result;
}

TEST(EndToEnd, RequestsWithDescriptorsAreHandledOnceAndAnsweredAcrossProcesses) {
    ScopedLeakCheck leaks;
    SocketPair pair = UnixDomainSocket::createPairedSocket(65536, 65536, false);
    ASSERT_GE(pair.first.get(), 0);
    const pid_t child = forkPeer([&pair] {  // no other thread exists yet
        pair.first = FileDescriptor();
        return runService(std::move(pair.second));
    });
    pair.second = FileDescriptor();

    Watchdog watchdog("camera side", 30s);
    DefaultReactor reactor;
    CBRegistry registry(1);
    std::mutex lock;
    std::map<uint32_t, std::vector<uint8_t>> statuses;  // guarded by lock
    std::atomic<int> receiveFailures{0};
    auto socket = std::make_shared<SocketEventHandler>(std::move(pair.first), EventType::READ);
    socket->setRunnable(std::make_shared<FunctionRunnable>([&, raw = socket.get()] {
        auto reply = std::make_unique<Message>();
        if (raw->receiveMessage(reply.get()) == 0) {
            registry.unRegisterCB(std::move(reply));
        } else {
            ++receiveFailures;
        }
    }));
    ASSERT_TRUE(reactor.registerEventHandler(socket));
    ReactorThread loop(reactor);

    std::vector<FileDescriptor> readEnds;
    for (uint32_t i = 0; i < kRequests; ++i) {
        int ends[2];
        ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
        readEnds.emplace_back(ends[0], 0);
        const FileDescriptor writeEnd(ends[1], 0);  // the peer gets its own copy

        const auto request = makeMessage(kFirstId + i, {static_cast<uint8_t>(i)}, {writeEnd.get()},
                                         nullptr, kWork);
        registry.registerCB(*request, [&, id = kFirstId + i](uint8_t status) {
            std::lock_guard<std::mutex> guard(lock);
            statuses[id].push_back(status);
        });
        ASSERT_EQ(socket->sendMessage(*request), 0);
    }

    ASSERT_TRUE(waitUntil([&] {
        std::lock_guard<std::mutex> guard(lock);
        return statuses.size() >= kRequests;
    }));
    loop.stop();  // statuses is ours alone from here
    EXPECT_EQ(receiveFailures.load(), 0);
    for (uint32_t i = 0; i < kRequests; ++i) {
        const auto found = statuses.find(kFirstId + i);
        ASSERT_NE(found, statuses.end()) << "no reply for request " << i;
        EXPECT_EQ(found->second, std::vector<uint8_t>{answerFor(i)});
    }

    // While the peer still runs, each pipe holds the handler's one byte
    // and then ends: the only other write end, the one the peer received,
    // has been closed by its handler.
    for (uint32_t i = 0; i < kRequests; ++i) {
        uint8_t bytes[2] = {0, 0};
        EXPECT_EQ(read(readEnds[i].get(), bytes, sizeof(bytes)), 1) << "pipe " << i;
        EXPECT_EQ(bytes[0], answerFor(i));
        EXPECT_EQ(read(readEnds[i].get(), bytes, sizeof(bytes)), 0) << "pipe " << i;
    }

    ASSERT_EQ(socket->sendMessage(*makeMessage(0, {}, {}, nullptr, kQuit)), 0);
    EXPECT_EQ(waitPeer(child), kServiceOk);
}

}  // namespace
