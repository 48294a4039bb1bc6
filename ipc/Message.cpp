#include <ipc/Message.h>
#include <ipc/MessageHandler.h>
#include <ipc/utils/Log.h>
#include <unistd.h>

#include <chrono>
#include <cstring>

#include "internal/StorageBlocks.h"

namespace Kestrel::ipc {

namespace {
constexpr utils::LogSite kLogSite{"Message", "ipc/Message", utils::kLogModuleCore};

constexpr size_t kIdOffset = 0;
constexpr size_t kTypeOffset = 4;
constexpr size_t kFlagsOffset = 8;
constexpr size_t kDataCountOffset = 12;
constexpr size_t kFdCountOffset = 16;
constexpr size_t kSettableHeaderBytes = 18;  // id through descriptor count
}  // namespace

Message::Payload::Payload(const void* packed, uint32_t dataCount, uint16_t fileDescriptorCount) {
    const auto* bytes = static_cast<const uint8_t*>(packed);
    if (dataCount != 0) {
        data.resize(dataCount);
        IPC_LOGD("[%s] data_offset(%zu)", __func__, static_cast<size_t>(dataCount));
        std::memmove(data.data(), bytes, dataCount);
    }
    if (fileDescriptorCount != 0) {
        fds.resize(fileDescriptorCount);
        const size_t fdBytes = sizeof(int) * fileDescriptorCount;
        IPC_LOGD("[%s] fds_offset(%zu)", __func__, fdBytes);
        std::memmove(fds.data(), bytes + dataCount, fdBytes);
    }
}

void* Message::allocateStorage(size_t bytes) { return storage_blocks::take(bytes); }

void Message::releaseStorage(void* block, size_t bytes) { storage_blocks::give(block, bytes); }

Message::Message(std::shared_ptr<MessageHandler> handler)
    : mHeaderSize(kHeaderSize),
      mHandler(handler ? std::move(handler) : std::make_shared<MessageHandler>()) {
    mStorage.reserve(kReservedStorage);
    mStorage.assign(kHeaderSize, 0);
}

Message::Message(Message&& other) noexcept : mHeaderSize(kHeaderSize) {
    utils::LockGuard lock(other.mMutex);
    mStorage = std::move(other.mStorage);
    other.mStorage.clear();
    mHandler.swap(other.mHandler);
}

Message& Message::operator=(Message&& other) noexcept {
    if (&other == this) {
        return *this;
    }
    // Both at once, in whichever order avoids a deadlock with an assignment
    // the other way round.
    std::unique_lock<std::mutex> mine(mMutex.native(), std::defer_lock);
    std::unique_lock<std::mutex> theirs(other.mMutex.native(), std::defer_lock);
    std::lock(mine, theirs);
    mMutex.assertHeld();
    other.mMutex.assertHeld();
    mStorage = std::move(other.mStorage);
    other.mStorage.clear();
    mHandler.swap(other.mHandler);
    return *this;
}

Message::~Message() = default;

void Message::checkHeaderPresent() const {
    if (mStorage.size() < mHeaderSize) {
        IPC_FATAL("message has no header (moved from), storage size(%zu)", mStorage.size());
    }
}

uint32_t Message::readWord(size_t offset) const {
    checkHeaderPresent();
    uint32_t value;
    std::memcpy(&value, mStorage.data() + offset, sizeof(value));
    return value;
}

void Message::writeWord(size_t offset, uint32_t value) {
    checkHeaderPresent();
    std::memcpy(mStorage.data() + offset, &value, sizeof(value));
}

void Message::writeDescriptorCount(uint16_t count) {
    checkHeaderPresent();
    std::memcpy(mStorage.data() + kFdCountOffset, &count, sizeof(count));
}

uint32_t Message::id() const {
    utils::LockGuard lock(mMutex);
    return readWord(kIdOffset);
}

uint32_t Message::type() const {
    utils::LockGuard lock(mMutex);
    return readWord(kTypeOffset);
}

uint32_t Message::flags() const {
    utils::LockGuard lock(mMutex);
    return readWord(kFlagsOffset);
}

uint32_t Message::dataCount() const {
    utils::LockGuard lock(mMutex);
    return readWord(kDataCountOffset);
}

uint16_t Message::fileDescriptorCount() const {
    utils::LockGuard lock(mMutex);
    checkHeaderPresent();
    uint16_t count;
    std::memcpy(&count, mStorage.data() + kFdCountOffset, sizeof(count));
    return count;
}

uint32_t Message::clearFlags() {
    utils::LockGuard lock(mMutex);
    const uint32_t old = readWord(kFlagsOffset);
    writeWord(kFlagsOffset, 0);
    return old;
}

bool Message::isAsync() const { return (flags() & kFlagAsync) != 0; }

bool Message::isReply() const { return ((flags() >> 1) & 1u) != 0; }

std::pair<const uint8_t*, size_t> Message::header() const {
    utils::LockGuard lock(mMutex);
    checkHeaderPresent();
    return {mStorage.data(), mHeaderSize};
}

std::pair<uint8_t*, size_t> Message::header() {
    utils::LockGuard lock(mMutex);
    checkHeaderPresent();
    return {mStorage.data(), mHeaderSize};
}

Message::PackedPayload Message::packedPayloadLocked() const {
    const uint32_t numData = readWord(kDataCountOffset);
    uint16_t numFds;
    std::memcpy(&numFds, mStorage.data() + kFdCountOffset, sizeof(numFds));
    IPC_LOGD("[%s] num_data(%u) num_fds(%u)", "payload", numData, static_cast<unsigned>(numFds));
    // The counts are trusted only as far as the storage reaches: a header
    // whose counts overstate the bytes behind it yields a payload clipped to
    // what is there rather than a read past the storage.
    const size_t available = mStorage.size() - mHeaderSize;
    const size_t dataBytes = numData <= available ? numData : available;
    const size_t fdRoom = (available - dataBytes) / sizeof(int);
    const size_t fdCount = numFds <= fdRoom ? numFds : fdRoom;
    const uint8_t* data = mStorage.data() + mHeaderSize;
    return PackedPayload{data, dataBytes, data + dataBytes, fdCount};
}

Message::PackedPayload Message::packedPayload() const {
    utils::LockGuard lock(mMutex);
    checkHeaderPresent();
    if (mStorage.size() == mHeaderSize) {
        IPC_LOGW("no payload exists");
        return PackedPayload{nullptr, 0, nullptr, 0};
    }
    return packedPayloadLocked();
}

Message::Wire Message::wire() const {
    utils::LockGuard lock(mMutex);
    checkHeaderPresent();
    if (mStorage.size() == mHeaderSize) {
        IPC_LOGW("no payload exists");
        return Wire{mStorage.data(), PackedPayload{nullptr, 0, nullptr, 0}, 0};
    }
    return Wire{mStorage.data(), packedPayloadLocked(), mStorage.size() - mHeaderSize};
}

Message::Counts Message::countsOf(const uint8_t* header) {
    Counts counts{};
    std::memcpy(&counts.data, header + kDataCountOffset, sizeof(counts.data));
    std::memcpy(&counts.fds, header + kFdCountOffset, sizeof(counts.fds));
    return counts;
}

Message::Payload Message::payload() const {
    utils::LockGuard lock(mMutex);
    if (mStorage.size() == mHeaderSize) {
        IPC_LOGW("no payload exists");
        return Payload();
    }
    const PackedPayload packed = packedPayloadLocked();
    return Payload(packed.data, static_cast<uint32_t>(packed.dataBytes),
                   static_cast<uint16_t>(packed.fdCount));
}

Message::Disposal Message::takeForDisposal() {
    Disposal disposal;
    utils::LockGuard lock(mMutex);
    checkHeaderPresent();
    if (mStorage.size() == mHeaderSize) {
        IPC_LOGW("no payload exists");
    } else {
        const PackedPayload packed = packedPayloadLocked();
        // The lines payload() writes, without the data's copy: Payload's
        // constructor given no data.
        if (packed.dataBytes != 0) {
            IPC_LOGD("[%s] data_offset(%zu)", "Payload", packed.dataBytes);
        }
        if (packed.fdCount != 0) {
            disposal.fds = Payload(packed.fds, 0, static_cast<uint16_t>(packed.fdCount)).fds;
        }
    }
    std::memset(mStorage.data() + kIdOffset, 0, kDataCountOffset - kIdOffset);
    std::memset(mStorage.data() + kFdCountOffset, 0, sizeof(uint16_t));
    std::memcpy(&disposal.fdCountAfter, mStorage.data() + kFdCountOffset,
                sizeof(disposal.fdCountAfter));
    return disposal;
}

void Message::closeCarriedDescriptors() {
    // The message is the caller's alone: nothing else waits for this lock
    // while the descriptors are closed under it.
    utils::LockGuard lock(mMutex);
    if (mStorage.size() <= mHeaderSize) {
        return;  // moved from, or a header without a payload
    }
    uint16_t numFds;
    std::memcpy(&numFds, mStorage.data() + kFdCountOffset, sizeof(numFds));
    if (numFds == 0) {
        return;
    }
    const PackedPayload packed = packedPayloadLocked();
    for (size_t i = 0; i < packed.fdCount; ++i) {
        int fd;
        std::memcpy(&fd, packed.fds + i * sizeof(int), sizeof(fd));
        if (fd >= 0) {
            ::close(fd);
        }
    }
    writeDescriptorCount(0);
}

void Message::adoptStorage(Storage&& storage) {
    if (storage.size() < mHeaderSize) {
        IPC_FATAL("storage size(%zu) below the header size(%zu)", storage.size(), mHeaderSize);
    }
    utils::LockGuard lock(mMutex);
    mStorage.swap(storage);
}

Message::Storage* Message::headerOnlyStorage() {
    return mStorage.size() == mHeaderSize ? &mStorage : nullptr;
}

void Message::setHeader(uint32_t dataCount, uint16_t fileDescriptorCount) {
    setHeader(0, 0, 0, dataCount, fileDescriptorCount);
}

void Message::setHeader(uint32_t id, uint32_t type, uint32_t flags, uint32_t dataCount,
                        uint16_t fileDescriptorCount) {
    utils::LockGuard lock(mMutex);
    writeWord(kIdOffset, id);
    writeWord(kTypeOffset, type);
    writeWord(kFlagsOffset, flags);
    writeWord(kDataCountOffset, dataCount);
    writeDescriptorCount(fileDescriptorCount);
}

void Message::setHeader(const std::vector<uint8_t>& bytes) {
    if (bytes.size() != mHeaderSize) {
        IPC_FATAL("the data size(%zu) is not the same as the header size(%zu)", bytes.size(),
                  mHeaderSize);
    }
    utils::LockGuard lock(mMutex);
    checkHeaderPresent();
    std::memcpy(mStorage.data(), bytes.data(), kSettableHeaderBytes);
}

void Message::setPayload(const Payload& payload) {
    utils::LockGuard lock(mMutex);
    checkHeaderPresent();
    const size_t oldSize = mStorage.size();
    const size_t dataBytes = payload.data.size();
    const size_t fdBytes = sizeof(int) * payload.fds.size();
    const size_t newSize = mHeaderSize + dataBytes + fdBytes;
    if (newSize != oldSize) {
        mStorage.resize(newSize, 0);
    }
    IPC_LOGD("[%s] adjust storage size from %zu to %zu", __func__, oldSize, newSize);
    if (dataBytes != 0) {
        writeWord(kDataCountOffset, static_cast<uint32_t>(dataBytes));
        std::memcpy(mStorage.data() + mHeaderSize, payload.data.data(), dataBytes);
    }
    if (fdBytes != 0) {
        writeDescriptorCount(static_cast<uint16_t>(payload.fds.size()));
        std::memcpy(mStorage.data() + mHeaderSize + dataBytes, payload.fds.data(), fdBytes);
    }
}

void Message::setMessageHandler(std::shared_ptr<MessageHandler> handler) {
    if (mHandler) {
        IPC_LOGW("message handler(0x%lx) is going to be removed",
                 reinterpret_cast<unsigned long>(mHandler.get()));
    }
    mHandler = std::move(handler);
}

void Message::waitResponse() {
    const auto replied = [this] {
        // NOLINTNEXTLINE(bugprone-lambda-function-name): the line names "operator()"
        IPC_LOGW("waitResponse timed out, message ID(%u) isReply(%d)", id(),
                 static_cast<int>(isReply()));
        return isReply();
    };
    utils::UniqueLock lock(mResponseMutex);
    static_cast<void>(lock.waitFor(mResponseCondition, std::chrono::seconds(1), replied));
}

void Message::signalResponse() {
    // Passing through the waiter's mutex orders this notification after any
    // check-then-wait in progress: a waiter has either not yet checked the
    // reply bit (and will see it) or already waits (and is woken).
    { const utils::LockGuard lock(mResponseMutex); }
    mResponseCondition.notify_one();
}

}  // namespace Kestrel::ipc
