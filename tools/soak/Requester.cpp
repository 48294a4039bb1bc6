// The request-and-reply roles. A requester keeps up to its window of requests
// in flight, registers a reply callback for each with a CBRegistry, and feeds
// every reply to it; a send that fails with nothing on the wire completes its
// request with that documented error through the same registry. So each
// request ends exactly once, and the callback checks that it ends in order.
#include <ipc/CBRegistry.h>
#include <ipc/Message.h>
#include <ipc/UnixDomainSocket.h>
#include <poll.h>
#include <sysutils/FileDescriptor.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <deque>
#include <memory>
#include <vector>

#include "ClientPlan.h"
#include "DescriptorPool.h"

namespace velacam::soak {

using Kestrel::ipc::CBRegistry;
using Kestrel::ipc::Message;
using Kestrel::ipc::UnixDomainSocket;
using Clock = std::chrono::steady_clock;

namespace {

constexpr std::chrono::microseconds kSpacing{1000};
// Status a request completed by a failed send gets (never on the wire).
constexpr uint8_t kLocalSendError = 0xEE;
// How long a lenient requester (one that is stopped, or sends 253
// descriptors) waits for a reply before calling it lost.
constexpr std::chrono::seconds kLostReply{60};

struct Style {
    // At most one request per `spacing`: a camera's pace, not a benchmark's,
    // so that a long soak leaves the machine's cores to what runs beside it.
    std::chrono::microseconds spacing;
    uint32_t window;
    uint32_t maxFds;  // descriptors per request: seq % (maxFds + 1), or maxFds when fixed
    bool fixedFds;
    bool readsReplies;
    bool strictLatency;
};

Style styleOf(Role role) {
    switch (role) {
        case Role::kFullDescriptors:
            return {kSpacing, 1, kMaxDescriptors, true, true, false};
        case Role::kDeaf:
            return {kSpacing / 4, UINT32_MAX, 0, true, false, false};
        case Role::kWellBehaved:
            return {kSpacing, kWindow, 3, false, true, true};
        default:
            return {kSpacing, kWindow, 3, false, true, false};
    }
}

// Latencies in milliseconds, for the median, 99th percentile and maximum.
class Latencies {
  public:
    void add(std::chrono::milliseconds latency) {
        const auto ms = static_cast<size_t>(std::max<int64_t>(0, latency.count()));
        ++mCounts[std::min(ms, mCounts.size() - 1)];
        mMax = std::max(mMax, ms);
        ++mTotal;
    }
    void into(ClientReport& report) const {
        report.latencyMaxMs = static_cast<uint32_t>(mMax);
        report.latencyMedianMs = quantile(0.5);
        report.latencyP99Ms = quantile(0.99);
    }

  private:
    uint32_t quantile(double q) const {
        const auto wanted = static_cast<uint64_t>(q * static_cast<double>(mTotal));
        uint64_t seen = 0;
        for (size_t ms = 0; ms < mCounts.size(); ++ms) {
            seen += mCounts[ms];
            if (seen > wanted) {
                return static_cast<uint32_t>(ms);
            }
        }
        return static_cast<uint32_t>(mMax);
    }
    std::vector<uint64_t> mCounts = std::vector<uint64_t>(120000);
    size_t mMax = 0;
    uint64_t mTotal = 0;
};

class Requester {
  public:
    explicit Requester(const ClientPlan& plan)
        : mPlan(plan),
          mStyle(styleOf(plan.role)),
          mReport(newReport(plan)),
          mPool(std::min<uint32_t>(mStyle.window, kWindow), mStyle.maxFds),
          mReplies(1) {
        mSocket.bind(Kestrel::utils::sys::FileDescriptor(plan.socketFd, 0));
    }

    int run() {
        bool connected = true;
        while (connected) {
            const bool stopping = stopRequested();
            if (stopping && (mInFlight.empty() || !mStyle.readsReplies)) {
                break;
            }
            const auto now = Clock::now();
            if (!stopping && mInFlight.size() < mStyle.window && now >= mNextSendAt) {
                mNextSendAt = now + mStyle.spacing;
                connected = sendNext();
                continue;
            }
            connected = awaitReply(stopping || mInFlight.size() >= mStyle.window
                                           ? std::chrono::milliseconds(20)
                                           : std::chrono::duration_cast<std::chrono::milliseconds>(
                                                     mNextSendAt - now));
        }
        mLatencies.into(mReport);
        sendReport(mPlan, mReport);
        return 0;
    }

  private:
    struct InFlight {
        uint32_t seq;
        Clock::time_point sentAt;
    };

    // False once the connection is gone.
    bool sendNext() {
        const uint32_t seq = mNextSeq++;
        const uint32_t fdCount = mStyle.fixedFds ? mStyle.maxFds : seq % (mStyle.maxFds + 1);
        const std::vector<int> fds = fdCount == 0
                                             ? std::vector<int>{}
                                             : mPool.fill(seq % std::min(mStyle.window, kWindow),
                                                          fdCount, mPlan.slot, seq);
        Message request;
        const RequestBody body{mPlan.slot, seq, static_cast<uint32_t>(fds.size()), kRequestMagic};
        request.setHeader(seq, kRequestType, 0, sizeof(body), static_cast<uint16_t>(fds.size()));
        Message::Payload payload;
        payload.data.resize(sizeof(body));
        std::memcpy(payload.data.data(), &body, sizeof(body));
        payload.fds = fds;
        request.setPayload(payload);

        if (mStyle.readsReplies) {
            mInFlight.push_back({seq, Clock::now()});
            mReplies.registerCB(request, [this, seq](uint8_t status) { complete(seq, status); });
        }
        const int result = mSocket.send(request);
        if (result == 0) {
            ++mReport.requests;
            mReport.descriptorsSent += fds.size();
            return true;
        }
        ++mReport.sendErrors[errorSlot(result)];
        // -103: the header went without its payload; -32, -104: the server
        // has gone. Any other failure put nothing on the wire.
        const bool lost = result == -103 || result == -32 || result == -104;
        if (lost && mStyle.strictLatency) {
            violation(mReport, "send of request %u failed with %d", seq, result);
        }
        if (mStyle.readsReplies) {
            auto failed = std::make_unique<Message>();
            failed->setHeader(seq, kReplyType, Message::kFlagReply, 1, 0);
            Message::Payload status;
            status.data = {kLocalSendError};
            failed->setPayload(status);
            mReplies.unRegisterCB(std::move(failed));
        }
        return !lost;
    }

    // Waits a little for a reply and hands it to the registry. False once the
    // connection is gone.
    bool awaitReply(std::chrono::milliseconds wait) {
        pollfd entry{mPlan.socketFd, POLLIN, 0};
        const int ready = ::poll(&entry, 1, static_cast<int>(wait.count()));
        if (ready > 0 && (entry.revents & POLLIN) != 0 && mStyle.readsReplies) {
            auto reply = std::make_unique<Message>();
            const int result = mSocket.recv(reply.get());
            if (result != 0) {
                violation(mReport, "receive of a reply failed with %d", result);
                return false;
            }
            if (!reply->isReply() || reply->type() != kReplyType) {
                violation(mReport, "a message of type %u that is not a reply", reply->type());
                return false;
            }
            const uint32_t id = reply->id();
            mCompleted = false;
            mReplies.unRegisterCB(std::move(reply));
            if (!mCompleted) {
                violation(mReport, "a reply to request %u, which has none pending", id);
            }
            return true;
        }
        if (ready > 0 && (entry.revents & (POLLHUP | POLLERR)) != 0) {
            if (mStyle.strictLatency) {
                violation(mReport, "the server disconnected a well-behaved client");
            }
            return false;
        }
        if (!mInFlight.empty()) {
            const auto age = Clock::now() - mInFlight.front().sentAt;
            const auto bound = mStyle.strictLatency
                                       ? std::chrono::duration_cast<Clock::duration>(kReplyBound)
                                       : std::chrono::duration_cast<Clock::duration>(kLostReply);
            if (age > bound) {
                violation(mReport, "no reply to request %u after %lld ms", mInFlight.front().seq,
                          static_cast<long long>(
                                  std::chrono::duration_cast<std::chrono::milliseconds>(age)
                                          .count()));
                return false;
            }
        }
        return true;
    }

    // The registry's callback: `seq` ended with `status`.
    void complete(uint32_t seq, uint8_t status) {
        mCompleted = true;
        if (mInFlight.empty() || mInFlight.front().seq != seq) {
            violation(mReport, "request %u ended out of order (expected %u)", seq,
                      mInFlight.empty() ? 0 : mInFlight.front().seq);
            return;
        }
        const auto latency = std::chrono::duration_cast<std::chrono::milliseconds>(
                Clock::now() - mInFlight.front().sentAt);
        mInFlight.pop_front();
        if (status == kLocalSendError) {
            return;
        }
        mLatencies.add(latency);
        ++mReport.replies;
        if (status != kReplyOk) {
            ++mReport.failedReplies;
            violation(mReport, "request %u refused by the server with status %u", seq, status);
        }
        if (mStyle.strictLatency && latency > kReplyBound) {
            violation(mReport, "request %u answered after %lld ms", seq,
                      static_cast<long long>(latency.count()));
        }
    }

    ClientPlan mPlan;
    Style mStyle;
    ClientReport mReport;
    DescriptorPool mPool;
    UnixDomainSocket mSocket;
    CBRegistry mReplies;
    std::deque<InFlight> mInFlight;
    Latencies mLatencies;
    uint32_t mNextSeq = 1;
    Clock::time_point mNextSendAt;
    bool mCompleted = false;
};

}  // namespace

int runRequester(const ClientPlan& plan) { return Requester(plan).run(); }

}  // namespace velacam::soak
