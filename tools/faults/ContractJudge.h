// Judges what a stream of messages between two socket ends did under planted
// faults: every message received whole is one that was sent, intact and in
// order; a message goes missing only after a failure was reported for it;
// a message whose send failed never arrives; and no call fails unless a
// fault was planted in it (a failure an earlier fault explains means that
// fault left the connection out of step without saying so). Counts every
// result by code.
#pragma once

#include <ipc/Message.h>

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>

namespace velacam::faults {

// Faults the preloaded interposer planted so far that took effect (0 without it).
uint64_t faultsPlanted();

// The message of index `index`: its id, data and descriptors follow from it.
std::unique_ptr<Kestrel::ipc::Message> messageFor(uint32_t index);

class ContractJudge {
  public:
    // Message `index` is about to be sent (so that a receive on another
    // thread may see it before its send returned), and its send gave `result`.
    void expect(uint32_t index);
    void sent(uint32_t index, int result, bool planted);
    // A receive gave `result` and, on 0, `message` (whose descriptors it
    // closes); `planted` says whether a fault took effect during it.
    void received(int result, Kestrel::ipc::Message* message, bool planted);
    // Nothing came within the wait although messages are owed.
    void nothingArrived();
    // The connection was replaced by a new one: nothing more is owed.
    void renewed();
    bool owed() const { return !mExpected.empty(); }
    // A result that leaves the connection unusable (out of step, or gone).
    static bool breaksConnection(int result);

    void violation(const std::string& text);
    bool kept() const { return mViolations.empty(); }
    // "send: 0 x380, -11 x12; receive: ...; descriptors lost ...; violations: ..."
    std::string summary() const;

  private:
    std::deque<uint32_t> mExpected;  // sent whole, not yet received
    std::set<uint32_t> mFailedSends;
    uint32_t mLastReceived = 0;
    bool mSenderBroke = false;  // a send left the connection unusable: what follows is its doing
    bool mFailureSinceLast = false;  // a receive failed since the last one that succeeded
    std::map<int, uint64_t> mSendResults;
    std::map<int, uint64_t> mReceiveResults;
    uint64_t mLostWithFailure = 0;
    uint64_t mDescriptorsLost = 0;
    uint64_t mRenewals = 0;
    std::deque<std::string> mViolations;
};

}  // namespace velacam::faults
