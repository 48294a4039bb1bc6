#include "ContractJudge.h"

#include <dlfcn.h>
#include <ipc/MessageHandler.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>

namespace velacam::faults {

using Kestrel::ipc::Message;

namespace {

uint32_t dataSizeOf(uint32_t index) { return (index * 37u) % 3000u; }
uint16_t fdCountOf(uint32_t index) { return static_cast<uint16_t>(index % 4u); }
uint8_t byteOf(uint32_t index, size_t j) { return static_cast<uint8_t>(index * 31u + j); }

std::string tagOf(uint32_t index, size_t j) {
    return "message " + std::to_string(index) + " descriptor " + std::to_string(j);
}

std::string results(const std::map<int, uint64_t>& counts) {
    std::string text;
    for (const auto& [code, count] : counts) {
        text += (text.empty() ? "" : ", ") + std::to_string(code) + " x" + std::to_string(count);
    }
    return text.empty() ? "none" : text;
}

}  // namespace

std::unique_ptr<Message> messageFor(uint32_t index) {
    auto message = std::make_unique<Message>();
    Message::Payload payload;
    payload.data.resize(dataSizeOf(index));
    for (size_t j = 0; j < payload.data.size(); ++j) {
        payload.data[j] = byteOf(index, j);
    }
    for (size_t j = 0; j < fdCountOf(index); ++j) {
        const int fd = ::memfd_create("contract", MFD_CLOEXEC);
        const std::string tag = tagOf(index, j);
        (void)::pwrite(fd, tag.data(), tag.size(), 0);
        payload.fds.push_back(fd);
    }
    message->setHeader(index, 7, 0, dataSizeOf(index), fdCountOf(index));
    message->setPayload(payload);
    return message;
}

bool ContractJudge::breaksConnection(int result) {
    return result == -103 || result == -104 || result == -32;
}

void ContractJudge::expect(uint32_t index) { mExpected.push_back(index); }

uint64_t faultsPlanted() {
    using Count = uint64_t (*)();
    static const auto count =
            reinterpret_cast<Count>(dlsym(RTLD_DEFAULT, "velacam_faults_planted"));
    return count != nullptr ? count() : 0;
}

void ContractJudge::sent(uint32_t index, int result, bool planted) {
    ++mSendResults[result];
    if (result == 0) {
        return;
    }
    if (!planted) {
        violation("the send of message " + std::to_string(index) + " failed with " +
                  std::to_string(result) + " and no fault was planted in it");
    }
    const auto found = std::find(mExpected.begin(), mExpected.end(), index);
    if (found != mExpected.end()) {
        mExpected.erase(found);
    } else if (mLastReceived == index) {
        violation("message " + std::to_string(index) + " arrived although its send failed");
    }
    if (breaksConnection(result)) {
        mSenderBroke = true;
    } else {
        mFailedSends.insert(index);
    }
}

void ContractJudge::received(int result, Message* message, bool planted) {
    ++mReceiveResults[result];
    if (result != 0) {
        if (!planted && !mSenderBroke) {
            violation("a receive failed with " + std::to_string(result) +
                      " and no fault was planted in it: an earlier one left the connection "
                      "out of step");
        }
        mFailureSinceLast = true;
        return;
    }
    const uint32_t index = message->id();
    const Message::Payload payload = message->payload();
    if (mFailedSends.count(index) != 0) {
        violation("message " + std::to_string(index) + " arrived although its send failed");
    }
    while (!mExpected.empty() && mExpected.front() != index) {
        if (!mFailureSinceLast) {
            violation("message " + std::to_string(mExpected.front()) +
                      " went missing without a failure; " + std::to_string(index) + " came");
        }
        ++mLostWithFailure;
        mExpected.pop_front();
    }
    if (mExpected.empty()) {
        violation("message " + std::to_string(index) + " arrived out of order or twice");
    } else {
        mExpected.pop_front();
    }
    bool intact = message->type() == 7 && payload.data.size() == dataSizeOf(index) &&
                  payload.fds.size() == fdCountOf(index);
    for (size_t j = 0; intact && j < payload.data.size(); ++j) {
        intact = payload.data[j] == byteOf(index, j);
    }
    for (size_t j = 0; j < payload.fds.size(); ++j) {
        const int fd = payload.fds[j];
        if (fd < 0) {
            ++mDescriptorsLost;
            continue;
        }
        char text[64] = {};
        const ssize_t got = ::pread(fd, text, sizeof(text) - 1, 0);
        intact = intact && got >= 0 && tagOf(index, j) == text;
    }
    // Closed as a message nobody handles would be: by the default handler.
    Kestrel::ipc::MessageHandler().handleMessage(*message);
    if (!intact) {
        violation("message " + std::to_string(index) + " arrived changed");
    }
    mFailureSinceLast = false;
    mLastReceived = index;
}

void ContractJudge::nothingArrived() {
    if (!mFailureSinceLast) {
        violation("message " + std::to_string(mExpected.front()) +
                  " was sent whole and never arrived, and no receive failed");
    }
    mLostWithFailure += mExpected.size();
    mExpected.clear();
    mFailureSinceLast = false;
}

void ContractJudge::renewed() {
    ++mRenewals;
    mSenderBroke = false;
    mExpected.clear();
    mFailureSinceLast = false;
}

void ContractJudge::violation(const std::string& text) {
    if (mViolations.size() < 5) {
        mViolations.push_back(text);
    }
}

std::string ContractJudge::summary() const {
    std::string text = "send " + results(mSendResults) + "; receive " + results(mReceiveResults);
    if (mLostWithFailure != 0) {
        text += "; lost after a failure " + std::to_string(mLostWithFailure);
    }
    if (mDescriptorsLost != 0) {
        text += "; descriptors lost (-1 slots) " + std::to_string(mDescriptorsLost);
    }
    if (mRenewals != 0) {
        text += "; connections renewed " + std::to_string(mRenewals);
    }
    for (const auto& v : mViolations) {
        text += "; VIOLATION: " + v;
    }
    return text;
}

}  // namespace velacam::faults
