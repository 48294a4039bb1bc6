#include <ipc/DefaultReactor.h>
#include <ipc/EventHandler.h>
#include <ipc/MessageHandler.h>
#include <ipc/RequestChannel.h>
#include <ipc/SocketEventHandler.h>
#include <ipc/utils/FunctionRunnable.h>
#include <ipc/utils/Log.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>

#include <cstring>
#include <utility>

#include "internal/DroppedMessage.h"
#include "internal/Observation.h"
#include "internal/ResultText.h"

namespace Kestrel::ipc {

namespace {
constexpr utils::LogSite kLogSite{"RequestChannel", "ipc/RequestChannel", utils::kLogModuleCore};

constexpr int kUnbound = -ENOENT;  // what every send on a socket without a descriptor gives
// Calls that may wait at once before the list of waiting calls grows.
constexpr size_t kWaitingRoom = 16;
// Where the header keeps the fields a call sets.
constexpr size_t kIdOffset = 0;
constexpr size_t kFlagsOffset = 8;
}  // namespace

RequestChannel::RequestChannel(Kestrel::utils::sys::FileDescriptor&& end, RequestHandler onRequest,
                               PeerGoneListener onPeerGone)
    : mOnRequest(std::move(onRequest)),
      mOnPeerGone(std::move(onPeerGone)),
      mCallersRead(!mOnRequest),
      mMessageHandler(std::make_shared<MessageHandler>()) {
    {
        utils::LockGuard lock(mLock);
        mWaiting.reserve(kWaitingRoom);
    }
    const bool bound = end.get() >= 0;
    mSocket = std::make_shared<SocketEventHandler>(std::move(end), EventType::READ);
    if (!bound) {
        IPC_LOGE("no socket to serve: every call fails (%s)", resultText(kUnbound));
        utils::LockGuard lock(mLock);
        mEnded = kUnbound;
        return;
    }
    if (mCallersRead) {
        return;  // no thread: each call reads, see the header
    }
    mReactor = std::make_unique<DefaultReactor>();
    mSocket->setRunnable(std::make_shared<utils::FunctionRunnable>([this] { receiveOne(); }));
    mReactor->setHangUpListener(
            [this](int, short, const std::shared_ptr<EventHandler>&) { peerHungUp(); });
    (void)mReactor->registerEventHandler(mSocket);  // a fresh reactor and a valid descriptor
    mReactorThread = std::thread([this] { mReactor->loop(std::chrono::milliseconds(0)); });
}

RequestChannel::~RequestChannel() {
    if (mReactorThread.joinable()) {
        mReactor->requestExit();
        mReactorThread.join();
    }
}

int RequestChannel::call(Message& request, std::chrono::milliseconds timeout,
                         std::unique_ptr<Message>* reply) {
    if (reply == nullptr || timeout.count() <= 0) {
        IPC_LOGE("call refused, nothing sent: %s",
                 reply == nullptr ? "no place for the reply" : "a time-out of 0 ms or less");
        return -EINVAL;
    }
    reply->reset();
    Waiter waiter;
    uint32_t id = 0;
    {
        utils::LockGuard lock(mLock);
        if (mEnded != 0) {
            return mEnded;
        }
        // Ids wrap around; 0 is never used and an id still waited for is skipped.
        do {
            id = mNextId++;
        } while (id == 0 || waiting(id) != nullptr);
        mWaiting.emplace_back(id, &waiter);
    }
    // The id and the flags straight into the header, which this call has to
    // itself: one lock of the message instead of one per field.
    uint8_t* const header = request.header().first;
    uint32_t flags = 0;
    std::memcpy(&flags, header + kFlagsOffset, sizeof(flags));
    flags &= ~Message::kFlagReply;
    std::memcpy(header + kFlagsOffset, &flags, sizeof(flags));
    std::memcpy(header + kIdOffset, &id, sizeof(id));
    const int sent = send(request);
    const Clock::time_point deadline = Clock::now() + timeout;

    utils::UniqueLock lock(mLock);
    if (sent != 0) {
        forget(id);  // end() may have taken it already
        return sent;
    }
    for (;;) {
        if (waiter.done) {
            *reply = std::move(waiter.reply);
            return waiter.result;
        }
        if (mCallersRead && !mReading) {
            // This call reads for every call until its own reply is in, then
            // hands the socket to another waiting call.
            mReading = true;
            lock.unlock();
            readUntil(waiter, deadline);
            lock.lock();
            mReading = false;
            for (const auto& [otherId, other] : mWaiting) {
                if (other != &waiter) {
                    other->arrived.notify_one();  // the next reader
                    break;
                }
            }
            if (waiter.done) {
                continue;
            }
        } else if (lock.waitUntil(waiter.arrived, deadline, [this, &waiter]() IPC_REQUIRES(mLock) {
                       return waiter.done || (mCallersRead && !mReading);
                   })) {
            continue;
        }
        if (Clock::now() >= deadline) {
            forget(id);
            IPC_LOGW("call(id: %u) timed out after %lld ms", id,
                     static_cast<long long>(timeout.count()));
            return kTimedOut;
        }
    }
}

void RequestChannel::readUntil(const Waiter& waiter, Clock::time_point deadline) {
    const int fd = mSocket->fd();
    for (;;) {
        {
            utils::LockGuard lock(mLock);
            if (waiter.done || mEnded != 0) {
                return;
            }
        }
        const auto left =
                std::chrono::duration_cast<std::chrono::nanoseconds>(deadline - Clock::now());
        if (left.count() <= 0) {
            return;
        }
        const timespec wait{static_cast<time_t>(left.count() / 1000000000),
                            static_cast<long>(left.count() % 1000000000)};
        pollfd socket{fd, POLLIN, 0};
        const int ready = ::ppoll(&socket, 1, &wait, nullptr);
        if (ready < 0 && errno != EINTR) {
            // Not a wait that can be tried again: the connection cannot be read.
            const int error = -errno;
            IPC_LOGE("ppoll failed (%s)", resultText(error));
            end(error);
            return;
        }
        if (ready <= 0) {
            continue;  // the time-out, or a signal: the checks above decide
        }
        if ((socket.revents & (POLLERR | POLLHUP | POLLNVAL)) != 0) {
            peerHungUp();
            return;
        }
        receiveOne();
    }
}

int RequestChannel::answer(const Message& request, Message& reply) {
    const int ended = this->ended();
    if (ended != 0) {
        return ended;
    }
    reply.setHeader(request.id(), request.type(), reply.flags() | Message::kFlagReply,
                    reply.dataCount(), reply.fileDescriptorCount());
    return send(reply);
}

int RequestChannel::ended() const {
    utils::LockGuard lock(mLock);
    return mEnded;
}

int RequestChannel::send(const Message& message) {
    utils::LockGuard lock(mSendLock);
    return mSocket->sendMessage(message);
}

void RequestChannel::receiveOne() {
    auto message = std::make_unique<Message>(mMessageHandler);
    const int result = mSocket->receiveMessage(message.get());
    if (result == -EAGAIN || result == -EINTR) {
        return;  // nothing there after all
    }
    if (result == kOutOfStep) {
        stopServing();
        end(kOutOfStep);
        return;
    }
    if (message->isReply()) {
        deliver(std::move(message), result);
        return;
    }
    if (result != 0) {
        return;  // a request refused on the way in: logged, its descriptors closed
    }
    if (!mOnRequest) {
        IPC_LOGW("request(id: %u) dropped: nobody serves requests here", message->id());
        dropMessage(std::move(message));
        return;
    }
    mOnRequest(*this, std::move(message));
}

void RequestChannel::deliver(std::unique_ptr<Message> reply, int result) {
    const observe::ReplyScope observed(this, *reply, observe::TraceKind::kReplyToCall);
    const uint32_t id = reply->id();
    {
        utils::LockGuard lock(mLock);
        if (Waiter* const found = waiting(id)) {
            Waiter& waiter = *found;
            forget(id);
            waiter.done = true;
            waiter.result = result;
            if (result == 0) {
                waiter.reply = std::move(reply);
            }
            // Under the lock: the waiter lives on its caller's stack until the
            // caller has taken the lock back.
            waiter.arrived.notify_one();
        }
    }
    if (reply && result == 0) {
        IPC_LOGW("reply(id: %u) came after its call ended, dropped", id);
        dropMessage(std::move(reply));
    }
}

void RequestChannel::peerHungUp() {
    // What the peer sent before it closed is still queued, a reply sent just
    // before its process ended included: take it before failing the calls.
    // A message starts with its 24-byte header record; a peek of 0 bytes is
    // the end of the stream.
    const int fd = mSocket->fd();
    char first = 0;
    while (ended() == 0 && ::recv(fd, &first, 1, MSG_PEEK | MSG_DONTWAIT) > 0) {
        receiveOne();
    }
    stopServing();
    end(kPeerGone);
}

void RequestChannel::stopServing() {
    if (mReactor) {
        (void)mReactor->removeEventHandlerByFd(mSocket->fd());
        mReactor->requestExit();
    }
}

RequestChannel::Waiter* RequestChannel::waiting(uint32_t id) const {
    for (const auto& [waitingId, waiter] : mWaiting) {
        if (waitingId == id) {
            return waiter;
        }
    }
    return nullptr;
}

void RequestChannel::forget(uint32_t id) {
    for (auto& entry : mWaiting) {
        if (entry.first == id) {
            entry = mWaiting.back();
            mWaiting.pop_back();
            return;
        }
    }
}

void RequestChannel::end(int result) {
    {
        utils::LockGuard lock(mLock);
        if (mEnded != 0) {
            return;
        }
        mEnded = result;
        for (const auto& [id, waiter] : mWaiting) {
            waiter->done = true;
            waiter->result = result;
            waiter->arrived.notify_one();
        }
        mWaiting.clear();
    }
    IPC_LOGI("connection ended (%s): every waiting call failed", resultText(result));
    if (mOnPeerGone) {
        mOnPeerGone();
    }
}

}  // namespace Kestrel::ipc
