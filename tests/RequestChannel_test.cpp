// RequestChannel: replies matched to their calls by id, the time-out, a peer
// that hangs up or stalls, late replies, and the serving side's answer.
#include <errno.h>
#include <gtest/gtest.h>
#include <ipc/Message.h>
#include <ipc/MessageHandler.h>
#include <ipc/RequestChannel.h>
#include <ipc/UnixDomainSocket.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "support/Messages.h"
#include "support/SocketPairFixture.h"

namespace {

namespace ipc = Kestrel::ipc;
using namespace velacam::test;
using ipc::Message;
using ipc::RequestChannel;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr milliseconds kLong{20000};  // longer than any case may take

std::string dataOf(const Message& message) {
    const Message::Payload payload = message.payload();
    return std::string(payload.data.begin(), payload.data.end());
}

// A request carrying `text` and no descriptor; its id is the channel's to set.
std::unique_ptr<Message> requestOf(const std::string& text, uint32_t type = 3) {
    return makeMessage(0, std::vector<uint8_t>(text.begin(), text.end()), {}, nullptr, type);
}

class RequestChannelTest : public SocketPairFixture {
  protected:
    // The serving side: a channel that hands each request to the test.
    std::mutex lock;
    std::vector<std::unique_ptr<Message>> requests;  // guarded by lock
    std::unique_ptr<RequestChannel> server;

    void startServer() {
        server = std::make_unique<RequestChannel>(
                std::move(pair.second), [this](RequestChannel&, std::unique_ptr<Message> request) {
                    std::lock_guard<std::mutex> hold(lock);
                    requests.push_back(std::move(request));
                });
    }
    bool waitForRequests(size_t count) {
        return waitUntil([&] {
            std::lock_guard<std::mutex> hold(lock);
            return requests.size() >= count;
        });
    }
    // Answers the request at `index` with its own data and a descriptor
    // holding the same text, then disposes of the request.
    int answerWithFile(size_t index) {
        std::unique_ptr<Message> request;
        {
            std::lock_guard<std::mutex> hold(lock);
            request = std::move(requests.at(index));
        }
        const FileDescriptor attached = memoryFile(dataOf(*request));
        auto reply = makeMessage(0, request->payload().data, {attached.get()});
        const int result = server->answer(*request, *reply);
        ipc::MessageHandler().handleMessage(*request);
        return result;
    }
    // Calls `client` on a thread of its own with a request carrying `text`;
    // the call's result, -1000 for a reply other than answerWithFile's, or
    // -2000 for a failed call that left a reply.
    static std::future<int> callAsync(RequestChannel& client, const std::string& text,
                                      milliseconds timeout = kLong) {
        return std::async(std::launch::async, [&client, text, timeout] {
            auto request = requestOf(text);
            auto reply = std::make_unique<Message>();
            const int result = client.call(*request, timeout, &reply);
            if (result != 0) {
                return reply ? -2000 : result;
            }
            const Message::Payload payload = reply->payload();
            const bool whole = reply->isReply() && reply->id() == request->id() &&
                               reply->type() == 3 && dataOf(*reply) == text &&
                               payload.fds.size() == 1 && contentsOf(payload.fds[0]) == text;
            ipc::MessageHandler().handleMessage(*reply);  // the reply's descriptor is ours
            return whole ? result : -1000;
        });
    }
};

TEST_F(RequestChannelTest, ConcurrentCalls_EachGetTheirOwnWholeReply) {
    startServer();
    RequestChannel client(std::move(pair.first));
    constexpr int kCallers = 6;
    std::vector<std::future<int>> callers;
    for (int i = 0; i < kCallers; ++i) {
        callers.push_back(callAsync(client, "call " + std::to_string(i)));
    }
    ASSERT_TRUE(waitForRequests(kCallers));
    for (int i = kCallers - 1; i >= 0; --i) {  // answered in the reverse order of arrival
        EXPECT_EQ(answerWithFile(static_cast<size_t>(i)), 0);
    }
    for (auto& caller : callers) {
        ASSERT_EQ(caller.wait_for(kLong), std::future_status::ready);
        EXPECT_EQ(caller.get(), 0);
    }
}

// The first call reads for both and gives up: the second takes the socket
// over and drops the late reply (the fixture's leak check sees its descriptor closed).
TEST_F(RequestChannelTest,
       CallTimingOut_HandsTheSocketOnAndItsLateReplyIsDroppedWithItsDescriptor) {
    startServer();
    RequestChannel client(std::move(pair.first));
    std::future<int> first = callAsync(client, "given up", milliseconds(300));
    ASSERT_TRUE(waitForRequests(1));
    std::future<int> second = callAsync(client, "patient");
    ASSERT_TRUE(waitForRequests(2));
    ASSERT_EQ(first.wait_for(kLong), std::future_status::ready);
    EXPECT_EQ(first.get(), RequestChannel::kTimedOut);
    EXPECT_EQ(capture.countContaining("timed out after 300 ms"), 1u);
    EXPECT_EQ(answerWithFile(0), 0);
    EXPECT_EQ(answerWithFile(1), 0);
    ASSERT_EQ(second.wait_for(kLong), std::future_status::ready);
    EXPECT_EQ(second.get(), 0);
    EXPECT_EQ(capture.count("reply(id: 1) came after its call ended, dropped"), 1u);
}

TEST_F(RequestChannelTest, PeerHangUp_FailsEveryWaitingCallAtOnceAndEveryLaterOne) {
    std::atomic<int> goneNotices{0};
    RequestChannel client(std::move(pair.first), {}, [&goneNotices] { ++goneNotices; });
    constexpr int kCallers = 4;
    std::vector<std::future<int>> callers;
    for (int i = 0; i < kCallers; ++i) {
        callers.push_back(callAsync(client, "never answered"));
    }
    // Every request is on the wire before the peer goes.
    for (int i = 0; i < kCallers; ++i) {
        const RawRecord header = readRecord(far);
        ASSERT_EQ(header.data.size(), Message::kHeaderSize);
        (void)readRecord(far);
    }
    const Clock::time_point closed = Clock::now();
    pair.second = FileDescriptor();
    for (auto& caller : callers) {
        ASSERT_EQ(caller.wait_for(kLong), std::future_status::ready);
        EXPECT_EQ(caller.get(), RequestChannel::kPeerGone);
    }
    EXPECT_LT(Clock::now() - closed, kLong / 4);  // the hang-up, not a time-out, ended them
    EXPECT_EQ(goneNotices.load(), 1);
    EXPECT_EQ(client.ended(), RequestChannel::kPeerGone);

    auto later = requestOf("too late");
    std::unique_ptr<Message> reply;
    EXPECT_EQ(client.call(*later, kLong, &reply), RequestChannel::kPeerGone);
}

TEST_F(RequestChannelTest, ServingSide_HearsOfTheHangUpWithoutAnErrorLine) {
    std::promise<void> gone;
    RequestChannel server(
            std::move(pair.second), [](RequestChannel&, std::unique_ptr<Message>) {},
            [&gone] { gone.set_value(); });
    pair.first = FileDescriptor();
    ASSERT_EQ(gone.get_future().wait_for(kLong), std::future_status::ready);
    EXPECT_EQ(server.ended(), RequestChannel::kPeerGone);
    // An orderly close that someone listens for is no error.
    EXPECT_EQ(capture.levelOf("fd(" + std::to_string(far) + "): output event failed: |hand up|"),
              3u);
}

TEST_F(RequestChannelTest, ReplySentJustBeforeTheHangUp_IsStillDelivered) {
    RequestChannel client(std::move(pair.first));
    auto request = requestOf("last words");
    std::future<int> caller = std::async(std::launch::async, [&] {
        std::unique_ptr<Message> reply;
        const int result = client.call(*request, kLong, &reply);
        return result == 0 && dataOf(*reply) == "bye" ? 0 : result == 0 ? -1 : result;
    });
    const RawRecord header = readRecord(far);
    ASSERT_EQ(header.data.size(), Message::kHeaderSize);
    (void)readRecord(far);
    uint32_t id = 0;
    std::memcpy(&id, header.data.data(), sizeof(id));
    {
        ipc::UnixDomainSocket peer;
        peer.bind(std::move(pair.second));
        auto reply = makeMessage(id, {'b', 'y', 'e'});
        reply->setHeader(id, 3, Message::kFlagReply, 3, 0);
        ASSERT_EQ(peer.send(*reply), 0);
    }  // closed right behind its reply
    ASSERT_EQ(caller.wait_for(kLong), std::future_status::ready);
    EXPECT_EQ(caller.get(), 0);
}

TEST_F(RequestChannelTest, PeerStalledBetweenTheRecordsOfAReply_FailsTheCallsOutOfStep) {
    RequestChannel client(std::move(pair.first));
    std::future<int> caller = callAsync(client, "stalled");
    (void)readRecord(far);
    (void)readRecord(far);
    ASSERT_TRUE(writeHeaderRecord(far, 1, 16, 0));  // and no payload record: 1 s, then -103
    ASSERT_EQ(caller.wait_for(kLong), std::future_status::ready);
    EXPECT_EQ(caller.get(), RequestChannel::kOutOfStep);
    EXPECT_EQ(client.ended(), RequestChannel::kOutOfStep);
}

TEST_F(RequestChannelTest,
       Answer_CopiesIdAndTypeAndSetsTheReplyFlag_RequestsWithoutAServerAreDropped) {
    startServer();
    ipc::UnixDomainSocket peer;
    peer.bind(std::move(pair.first));
    auto request = makeMessage(77, {'q'}, {}, nullptr, 5);
    ASSERT_EQ(peer.send(*request), 0);
    ASSERT_TRUE(waitForRequests(1));
    EXPECT_EQ(answerWithFile(0), 0);
    Message reply;
    ASSERT_EQ(peer.recv(&reply), 0);
    EXPECT_EQ(reply.id(), 77u);
    EXPECT_EQ(reply.type(), 5u);
    EXPECT_TRUE(reply.isReply());
    ipc::MessageHandler().handleMessage(reply);

    // A channel without a request handler closes what a request brings.
    server.reset();
    ipc::SocketPair second = ipc::UnixDomainSocket::createPairedSocket(65536, 65536, false);
    ipc::UnixDomainSocket sender;
    sender.bind(std::move(second.first));
    RequestChannel silent(std::move(second.second));
    auto unserved = makeMessage(9, {'x'}, {file.get()});
    ASSERT_EQ(sender.send(*unserved), 0);
    auto call = requestOf("read on the way");
    std::unique_ptr<Message> none;
    EXPECT_EQ(silent.call(*call, milliseconds(100), &none), RequestChannel::kTimedOut);
    EXPECT_EQ(capture.count("request(id: 9) dropped: nobody serves requests here"), 1u);
}

TEST_F(RequestChannelTest, CallerMistakes_AreRefusedWithNothingSent) {
    RequestChannel client(std::move(pair.first));
    auto request = requestOf("x");
    std::unique_ptr<Message> reply;
    EXPECT_EQ(client.call(*request, milliseconds(0), &reply), -EINVAL);
    EXPECT_EQ(client.call(*request, milliseconds(10), nullptr), -EINVAL);
    EXPECT_EQ(readRecord(far, 4096, 16, MSG_DONTWAIT).error, EAGAIN);

    RequestChannel unbound{FileDescriptor()};
    EXPECT_EQ(unbound.call(*request, milliseconds(10), &reply), -ENOENT);
    EXPECT_EQ(capture.count("no socket to serve: every call fails (socket not bound)"), 1u);
}

}  // namespace
