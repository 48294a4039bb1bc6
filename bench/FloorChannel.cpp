// The floors' channel: a raw socket pair and a forked server running
// RawFloor's serveEcho (a call per record, or one send call per record pair)
// or BatchedFloor's serveEchoBatched (one call per record pair, guarded or
// not).
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <vector>

#include "BatchedFloor.h"
#include "ForkedPeer.h"
#include "RawFloor.h"
#include "RoundTripChannel.h"

namespace velacam::bench {
namespace {

bool isBatched(FloorCalls calls) {
    return calls == FloorCalls::kBatched || calls == FloorCalls::kBatchedGuarded;
}

raw::Guards guardsOf(FloorCalls calls) {
    return calls == FloorCalls::kBatchedGuarded ? raw::Guards::kLibraryDefaults
                                                : raw::Guards::kNone;
}

bool makeSocketPair(int pair[2], FloorCalls calls) {
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) {
        return false;
    }
    const int size = static_cast<int>(kSocketBufferSize);
    bool bounded = true;
    for (int i = 0; i < 2; ++i) {
        setsockopt(pair[i], SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
        setsockopt(pair[i], SOL_SOCKET, SO_SNDBUF, &size, sizeof(size));
        if (calls == FloorCalls::kBatchedGuarded) {
            bounded = raw::setReceiveBound(pair[i]) && bounded;
        }
    }
    if (bounded && socketHolds(pair[0], kLargestRecord) && socketHolds(pair[1], kLargestRecord)) {
        return true;
    }
    close(pair[0]);
    close(pair[1]);
    return false;
}

raw::SendCalls sendsOf(FloorCalls calls) {
    return calls == FloorCalls::kPerRecord ? raw::SendCalls::kPerRecord : raw::SendCalls::kOne;
}

class FloorChannel : public RoundTripChannel {
  public:
    FloorChannel(int client, std::unique_ptr<ForkedPeer> server, const RoundTripShape& shape,
                 FloorCalls calls)
        : mClient(client),
          mServer(std::move(server)),
          mCalls(calls),
          mSent(shape.fds),
          mData(shape.payload, 0x5a),
          mReply(std::max(shape.payload, raw::kGuardedRoom)) {
        raw::packHeader(
                {7, 1, 0, static_cast<uint32_t>(shape.payload), static_cast<uint16_t>(shape.fds)},
                mHeader);
    }
    ~FloorChannel() override {
        (void)finish();
        close(mClient);
    }

    bool roundTrip() override {
        if (isBatched(mCalls)) {
            return raw::roundTripBatched(mClient, mHeader, mData.data(), mData.size(),
                                         mSent.fds().data(), mSent.fds().size(), mReply.data(),
                                         guardsOf(mCalls));
        }
        return raw::roundTrip(mClient, sendsOf(mCalls), mHeader, mData.data(), mData.size(),
                              mSent.fds().data(), mSent.fds().size(), mReply.data());
    }

    bool finish() override {
        if (!mServer) {
            return true;
        }
        uint8_t stop[raw::kHeaderSize];
        raw::packHeader({0, raw::kStopType, 0, 0, 0}, stop);
        // A server reading a record at a time ends on the header alone, the
        // batched one on the header with an empty data record.
        const bool sent = isBatched(mCalls)
                                  ? raw::sendPair(mClient, stop, nullptr, 0, nullptr, 0)
                                  : raw::sendRecord(mClient, stop, sizeof(stop), nullptr, 0);
        const bool joined = mServer->join();
        mServer.reset();
        return sent && joined;
    }

    long serverFaults() const override { return mServer ? mServer->minorFaults() : -1; }

  private:
    int mClient;
    std::unique_ptr<ForkedPeer> mServer;
    FloorCalls mCalls;
    SentDescriptors mSent;
    std::vector<uint8_t> mData;
    std::vector<uint8_t> mReply;
    uint8_t mHeader[raw::kHeaderSize];
};

}  // namespace

std::unique_ptr<RoundTripChannel> makeFloorChannel(const RoundTripShape& shape, FloorCalls calls) {
    int pair[2];
    if (!makeSocketPair(pair, calls)) {
        return nullptr;
    }
    const size_t idleCount = shape.idle;
    const size_t payload = shape.payload;
    const size_t fds = shape.fds;
    auto server = std::make_unique<ForkedPeer>([&] {
        close(pair[0]);
        IdleSockets idle(idleCount);
        if (!idle.ok()) {
            return 1;
        }
        if (isBatched(calls)) {
            return raw::serveEchoBatched(pair[1], idle.watched().data(), idle.watched().size(),
                                         payload, fds, guardsOf(calls));
        }
        return raw::serveEcho(pair[1], idle.watched().data(), idle.watched().size(),
                              sendsOf(calls));
    });
    close(pair[1]);
    if (!server->started()) {
        close(pair[0]);
        return nullptr;
    }
    return std::make_unique<FloorChannel>(pair[0], std::move(server), shape, calls);
}

}  // namespace velacam::bench
