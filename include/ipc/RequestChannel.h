// RequestChannel: a request sent on one end of a connected socket pair and its
// reply back, whole, within a time limit given per call.
//
// A channel owns one socket end. call() gives the request an id of its own,
// sends it, and waits for the message that comes back with that id and the
// reply flag: its data and its descriptors, owned by the caller. Any number
// of threads may call at once; each gets its own reply. Messages that arrive
// without the reply flag are requests: they go to the RequestHandler given at
// construction, and the serving side answers one with answer(), which copies
// the request's id and type into the reply and sets the reply flag. Both
// ends may be channels, and both may call and answer.
//
// Who reads the socket:
//   - With a RequestHandler (a serving side), a DefaultReactor on a thread
//     the channel owns: a SocketEventHandler receives every message there,
//     and the reactor's hang-up listener tells the channel that the peer is
//     gone, at any time. A reply reaches its caller through that thread.
//   - Without one (a calling side), no thread: a waiting call reads the
//     socket itself, for every call, until its own reply is in, and then
//     hands the socket to another waiting call. A reply then costs no wake of
//     a second thread, which would nearly double a small round trip. The
//     hang-up, and requests (dropped), are seen while a call reads: a peer
//     that goes while no call waits fails the next call, at once.
//   Each thread that reads reserves address space as UnixDomainSocket::recv
//   says.
//
// Why not the message table or the callback registry: MessageTable's waiters
// block without a time-out and serve the fixed number of threads its
// constructor names, and extract() hands out whichever id comes first, not the
// caller's; CBRegistry gives its callback one status byte and closes the
// reply's descriptors. A caller here waits for one id, for a bounded time,
// and takes the whole message, so the channel keeps its own table of
// waiting calls.
//
// Results (every call returns 0 or a negative errno value):
//   0             the reply is in `*reply`.
//   kTimedOut     -110 ETIMEDOUT: no reply within the time-out. The id is
//                 forgotten; a reply that comes later is dropped and its
//                 descriptors are closed ("reply(id: %u) came after its call
//                 ended, dropped", warning) when it is read: at once on a
//                 serving side, by the next call on a calling side.
//   kPeerGone     -32 EPIPE: the peer hung up (closed its end, or its process
//                 ended) before the reply came. Every call waiting then fails
//                 at once with it, and every later call at once too. Replies
//                 that were already on the socket when the hang-up was seen
//                 are still delivered.
//   kOutOfStep    -103 ECONNABORTED: a message came in pieces (a peer that
//                 stalled between the two records of one); the connection
//                 is unusable, and every waiting and later call fails with it.
//   -22 EINVAL    a time-out of 0 ms or less, or a null `reply`; nothing sent.
//   -2 ENOENT     the channel was made without a socket; nothing sent.
//   other         the send's own result (UnixDomainSocket::send), nothing
//                 waited for; or the receive's result when the reply came but
//                 could not be taken whole (-90, -74, -61, -12): its header
//                 matched this call, its descriptors were closed.
//
// A peer that is alive but never answers costs each caller its time-out, no
// more. One that stalls between the two records of a message keeps the
// thread reading it up to the socket's payload time-out longer
// (UnixDomainSocket::setPayloadTimeout, 1 s), then every call fails with
// kOutOfStep. A peer that stops reading fills the socket's buffer: the send then
// blocks as UnixDomainSocket::send does, and the time-out starts once the
// request is out.
//
// Ownership: the channel owns its socket end (closed on destruction) and the
// reactor thread. A request keeps its descriptors (the caller's to close); a
// reply's descriptors belong to the caller, who closes them, for instance
// with MessageHandler::handleMessage(*reply). Requests handed to the
// RequestHandler are the handler's, descriptors included.
//
// Thread: call() and answer() from any thread, also from the handlers; sends
// are serialised, so two senders never interleave their records. The
// RequestHandler runs on the reactor thread, the PeerGoneListener on the
// thread that saw the hang-up (the reactor's, or a reading call's), both with
// no channel lock held: a RequestHandler that calls call() itself blocks
// every reply meanwhile (hand the request to another thread instead).
// Destroy the channel only when no call is in progress; it stops and joins
// its thread (not from one of its handlers).
#pragma once

#include <ipc/Message.h>
#include <sysutils/FileDescriptor.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "ipc/Export.h"
#include "ipc/utils/Mutex.h"
#include "ipc/utils/ThreadSafety.h"

namespace Kestrel::ipc {

class DefaultReactor;
class MessageHandler;
class SocketEventHandler;

class IPC_EXPORT RequestChannel {
  public:
    static constexpr int kTimedOut = -ETIMEDOUT;
    static constexpr int kPeerGone = -EPIPE;
    static constexpr int kOutOfStep = -ECONNABORTED;

    // Takes a request that arrived (no reply flag), with its descriptors;
    // `channel` is the one it came on, to answer() it now or later.
    using RequestHandler =
            std::function<void(RequestChannel& channel, std::unique_ptr<Message> request)>;
    // Told once that the peer hung up or the connection broke, after every
    // waiting call has been failed; on the thread that saw it.
    using PeerGoneListener = std::function<void()>;

    // With `onRequest`, serves `end` on a reactor thread of its own from now
    // on. Without, calls read `end` themselves, and requests that come are
    // dropped with their descriptors closed ("request(id: %u) dropped:
    // nobody serves requests here", warning). An invalid `end` makes every
    // call fail with -2 (logged once here).
    explicit RequestChannel(Kestrel::utils::sys::FileDescriptor&& end,
                            RequestHandler onRequest = {}, PeerGoneListener onPeerGone = {});
    // Stops the reactor thread, if any, and closes the socket end. No call
    // may be in progress; requests not yet handled are lost.
    ~RequestChannel();
    RequestChannel(const RequestChannel&) = delete;
    RequestChannel& operator=(const RequestChannel&) = delete;

    // Sends `request` with a fresh id (written into its header; its type,
    // payload and flags but the reply flag stay) and waits at most `timeout`
    // for the reply. On 0, `*reply` holds it; otherwise `*reply` is left
    // empty. Results: see the top of this file.
    // Thread: any. Blocks: sending, then until the reply, the hang-up or
    // the time-out.
    // `request` must not be used by another thread during the call.
    [[nodiscard]] int call(Message& request, std::chrono::milliseconds timeout,
                           std::unique_ptr<Message>* reply) IPC_EXCLUDES(mLock, mSendLock);

    // Sends `reply` as the answer to `request`: the request's id and type,
    // `reply`'s flags with the reply flag added, `reply`'s counts and payload
    // (which it keeps). Returns the send's result, or kPeerGone / kOutOfStep
    // once the connection has ended. Thread: any.
    [[nodiscard]] int answer(const Message& request, Message& reply) IPC_EXCLUDES(mLock, mSendLock);

    // 0 while the connection is up, else the result every call now gets.
    int ended() const IPC_EXCLUDES(mLock);

  private:
    // One call waiting for its reply; lives on the caller's stack.
    struct Waiter {
        std::condition_variable arrived;
        bool done = false;
        int result = 0;
        std::unique_ptr<Message> reply;
    };

    using Clock = std::chrono::steady_clock;

    // The reading thread (the reactor's, or the reading call's): one message
    // off the socket, handed on.
    void receiveOne() IPC_EXCLUDES(mLock);
    // The reading thread: the peer hung up; takes what is still queued first.
    void peerHungUp() IPC_EXCLUDES(mLock);
    // A call that reads for all: receives until `waiter` is done, the
    // connection ends or `deadline` passes.
    void readUntil(const Waiter& waiter, Clock::time_point deadline) IPC_EXCLUDES(mLock);
    // Takes the socket out of the reactor, if there is one, and ends its loop.
    void stopServing();
    // The waiting call of `id`, or null; forget() removes it, if there.
    Waiter* waiting(uint32_t id) const IPC_REQUIRES(mLock);
    void forget(uint32_t id) IPC_REQUIRES(mLock);
    // Ends the connection with `result`: every waiting call fails with it.
    void end(int result) IPC_EXCLUDES(mLock);
    // Hands a received reply (or the receive's failure) to its call.
    void deliver(std::unique_ptr<Message> reply, int result) IPC_EXCLUDES(mLock);
    [[nodiscard]] int send(const Message& message) IPC_EXCLUDES(mSendLock);

    const RequestHandler mOnRequest;
    const PeerGoneListener mOnPeerGone;
    const bool mCallersRead;  // no RequestHandler: calls read, no reactor
    // The default handler of every message received, shared: one fewer
    // allocation per message than a handler of its own.
    const std::shared_ptr<MessageHandler> mMessageHandler;
    std::shared_ptr<SocketEventHandler> mSocket;
    std::unique_ptr<DefaultReactor> mReactor;  // only with a RequestHandler

    mutable utils::Mutex mLock;
    // The calls waiting, by id, in no order: a few at a time, so a scan costs
    // less than a map's allocation per call.
    std::vector<std::pair<uint32_t, Waiter*>> mWaiting IPC_GUARDED_BY(mLock);
    uint32_t mNextId IPC_GUARDED_BY(mLock) = 1;
    int mEnded IPC_GUARDED_BY(mLock) = 0;         // set once: kPeerGone, kOutOfStep or -2
    bool mReading IPC_GUARDED_BY(mLock) = false;  // a call reads the socket now

    utils::Mutex mSendLock;  // held across one message's send

    std::thread mReactorThread;  // last: started when everything above is ready
};

}  // namespace Kestrel::ipc
