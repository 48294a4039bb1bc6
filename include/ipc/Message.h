// Message: the unit every other class moves around.
//
// A message is a 24-byte header (id, type, flags, dataCount,
// fileDescriptorCount, 6 reserved bytes; host byte order) followed directly by
// a packed payload: dataCount data bytes, then fileDescriptorCount descriptors
// as 4-byte integers, unaligned. Header and payload live in one byte vector so
// that the transport sends and receives the header in place. Flag bit 0 marks
// an asynchronous message, bit 1 a reply.
//
// Ownership: a message owns its bytes and a shared pointer to the
// MessageHandler that disposes of it; it does not own the descriptors it
// carries (the default handler closes them). Messages are moved, never copied;
// the queue, table and registry hold them by std::unique_ptr.
//
// Thread: every header and payload accessor is atomic under the message's own
// mutex; sequences of calls are not. Clang checks the locking against the
// annotations below.
// Failure: a header vector of the wrong size, or use of a moved-from message's
// header, ends the process. The moves are noexcept: they only take the
// messages' mutexes, which fail only on misuse (a lock the caller holds).
//
// The transport (UnixDomainSocket) is a friend: it sends the payload straight
// from the storage and receives into it (a message that already has a
// payload gets a storage handed over whole once the new one has come), so
// that no payload byte is copied but by the kernel. The default
// MessageHandler is one too: it reads the descriptors without copying the
// data; and so is the library's disposal of the messages it drops unhandled.
// Those operations are private; nothing else sees them.
//
// Compatibility: kept as existing callers rely on it. Move assignment swaps
// the handlers (the source receives this message's former one) where the move
// constructor leaves the source none. setMessageHandler() takes no lock.
// setPayload() leaves a count untouched when its block is empty. waitResponse()
// logs "waitResponse timed out, ..." at every check of the reply bit, the
// successful one included, and reports nothing: callers ask isReply().
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "ipc/Export.h"
#include "ipc/utils/Mutex.h"
#include "ipc/utils/ThreadSafety.h"

namespace Kestrel::ipc {

class MessageHandler;

class IPC_EXPORT Message {
  public:
    // The unpacked form of a payload. The descriptors are not owned: nothing
    // closes them when a Payload goes away.
    struct IPC_EXPORT Payload {
        Payload() = default;
        // Unpacks `dataCount` bytes and then `fileDescriptorCount` 4-byte
        // descriptors from `packed` (byte copies: the block may be unaligned).
        Payload(const void* packed, uint32_t dataCount, uint16_t fileDescriptorCount);

        std::vector<uint8_t> data;
        std::vector<int> fds;
    };

    static constexpr size_t kHeaderSize = 24;
    static constexpr uint32_t kFlagAsync = 1u << 0;
    static constexpr uint32_t kFlagReply = 1u << 1;

    // A zeroed header and `handler`, or a new default MessageHandler when null.
    explicit Message(std::shared_ptr<MessageHandler> handler = nullptr);
    // Takes `other`'s bytes and handler; `other` is left with no header and no
    // handler.
    Message(Message&& other) noexcept IPC_EXCLUDES(other.mMutex);
    // Takes `other`'s bytes and swaps handlers: `other` receives this
    // message's former handler. Self-assignment does nothing.
    Message& operator=(Message&& other) noexcept IPC_EXCLUDES(mMutex, other.mMutex);
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;
    // Neither calls the handler nor closes descriptors.
    virtual ~Message();

    uint32_t id() const IPC_EXCLUDES(mMutex);
    uint32_t type() const IPC_EXCLUDES(mMutex);
    uint32_t flags() const IPC_EXCLUDES(mMutex);
    uint32_t dataCount() const IPC_EXCLUDES(mMutex);
    uint16_t fileDescriptorCount() const IPC_EXCLUDES(mMutex);
    // Sets the flags word to 0 and returns its former value.
    uint32_t clearFlags() IPC_EXCLUDES(mMutex);
    bool isAsync() const IPC_EXCLUDES(mMutex);
    bool isReply() const IPC_EXCLUDES(mMutex);

    // The header's first byte and its size (24). The pointer is valid until
    // the storage is reallocated (setPayload, a move); whoever writes through
    // the non-const form must own the message exclusively.
    std::pair<const uint8_t*, size_t> header() const IPC_EXCLUDES(mMutex);
    std::pair<uint8_t*, size_t> header() IPC_EXCLUDES(mMutex);

    // A copy of the payload, unpacked with the header's counts as they stand.
    // A header-only message logs "no payload exists" and gives an empty one.
    Payload payload() const IPC_EXCLUDES(mMutex);

    // Sets the counts; id, type and flags become 0.
    void setHeader(uint32_t dataCount, uint16_t fileDescriptorCount) IPC_EXCLUDES(mMutex);
    void setHeader(uint32_t id, uint32_t type, uint32_t flags, uint32_t dataCount,
                   uint16_t fileDescriptorCount) IPC_EXCLUDES(mMutex);
    // Copies bytes 0..17 (id through descriptor count) of a 24-byte header;
    // the reserved bytes stay. Any other size ends the process.
    void setHeader(const std::vector<uint8_t>& bytes) IPC_EXCLUDES(mMutex);

    // Resizes the storage to header + data + 4 x descriptors and packs the
    // payload. An empty data block (or descriptor list) leaves its count in
    // the header untouched, so emptying a payload keeps the old counts.
    void setPayload(const Payload& payload) IPC_EXCLUDES(mMutex);

    // Replaces the handler (null is stored as given), warning when one was
    // set. Must not race with readers of the handler.
    void setMessageHandler(std::shared_ptr<MessageHandler> handler);
    const std::shared_ptr<MessageHandler>& messageHandler() const { return mHandler; }

    // Waits up to 1 s for the reply bit, re-checked on every wake-up; logs
    // "waitResponse timed out, message ID(%u) isReply(%d)" on every check.
    void waitResponse() IPC_EXCLUDES(mMutex, mResponseMutex);
    // Wakes one waiter. Set the reply bit (setHeader) before calling this.
    void signalResponse() IPC_EXCLUDES(mResponseMutex);

  private:
    friend class UnixDomainSocket;
    friend class MessageHandler;
    // The library's disposal of a message it destroys unhandled.
    friend void dropMessage(std::unique_ptr<Message> message);

    // Grows a vector without zero-filling: resize(n) leaves the new bytes for
    // the kernel to fill. A value given (resize(n, 0)) is still written.
    // Memory comes from allocateStorage(), which recycles large blocks.
    template <typename T>
    struct UninitialisedAllocator : std::allocator<T> {
        template <typename U>
        // NOLINTNEXTLINE(readability-identifier-naming): the allocator requirements name it
        struct rebind {
            using other = UninitialisedAllocator<U>;
        };
        UninitialisedAllocator() = default;
        template <typename U>
        UninitialisedAllocator(const UninitialisedAllocator<U>&) {}
        T* allocate(size_t n) { return static_cast<T*>(allocateStorage(n * sizeof(T))); }
        void deallocate(T* p, size_t n) { releaseStorage(p, n * sizeof(T)); }
        template <typename U>
        void construct(U* p) {
            ::new (static_cast<void*>(p)) U;
        }
        template <typename U, typename... Args>
        void construct(U* p, Args&&... args) {
            ::new (static_cast<void*>(p)) U(std::forward<Args>(args)...);
        }
    };
    using Storage = std::vector<uint8_t, UninitialisedAllocator<uint8_t>>;
    // Storage memory: a large block freed by one message is kept for the
    // next one of its size, so that its pages are not faulted in anew.
    static void* allocateStorage(size_t bytes);
    static void releaseStorage(void* block, size_t bytes);

    // The packed payload in place, with the counts payload() would unpack.
    // Valid as header() is: until the storage changes.
    struct PackedPayload {
        const uint8_t* data;
        size_t dataBytes;
        const uint8_t* fds;  // unaligned 4-byte descriptors
        size_t fdCount;
    };
    // What payload() gives, without the copy; logs "no payload exists" the
    // same way for a header-only message.
    PackedPayload packedPayload() const IPC_EXCLUDES(mMutex);
    // What a send puts on the wire, taken under one lock: the header (its
    // kHeaderSize bytes), packedPayload(), and how many bytes the storage
    // holds behind the header (which the header's counts may not describe).
    struct Wire {
        const uint8_t* header;
        PackedPayload payload;
        size_t storedPayloadBytes;
    };
    Wire wire() const IPC_EXCLUDES(mMutex);
    // The counts a header announces, read from its bytes (a header being
    // received, not yet a message's).
    struct Counts {
        uint32_t data;
        uint16_t fds;
    };
    static Counts countsOf(const uint8_t* header);
    // The default handler's disposal, taken in one hold of the lock: the
    // descriptors payload() would unpack, with the same lines logged and
    // without copying the data; then the header as setHeader(dataCount(), 0)
    // leaves it (id, type, flags and the descriptor count 0), and the
    // descriptor count read back from it (0).
    struct Disposal {
        std::vector<int> fds;
        uint16_t fdCountAfter;
    };
    Disposal takeForDisposal() IPC_EXCLUDES(mMutex);
    // For a message the library destroys unhandled: closes the descriptors
    // it carries (lost slots, held as -1, skipped), read in place without
    // copying or allocating, and counts none in the header. A moved-from
    // message carries nothing and is left alone.
    void closeCarriedDescriptors() IPC_EXCLUDES(mMutex);
    // Replaces the whole storage (header and packed payload) with `storage`,
    // which must hold at least the header.
    void adoptStorage(Storage&& storage) IPC_EXCLUDES(mMutex);
    // The storage itself when it holds the header alone (a fresh message),
    // else null: a receive then lands the payload in place, in the room the
    // constructor reserved. Unchecked, without the lock: the transport's
    // recv() has the message to itself.
    Storage* headerOnlyStorage() IPC_NO_THREAD_SAFETY_ANALYSIS;
    // What a new message's storage holds before it needs to grow: the header
    // and a small payload.
    static constexpr size_t kReservedStorage = 256;

    PackedPayload packedPayloadLocked() const IPC_REQUIRES(mMutex);
    uint32_t readWord(size_t offset) const IPC_REQUIRES(mMutex);
    void writeWord(size_t offset, uint32_t value) IPC_REQUIRES(mMutex);
    void writeDescriptorCount(uint16_t count) IPC_REQUIRES(mMutex);
    void checkHeaderPresent() const IPC_REQUIRES(mMutex);

    size_t mHeaderSize;
    mutable utils::Mutex mMutex;
    Storage mStorage IPC_GUARDED_BY(mMutex);
    std::shared_ptr<MessageHandler> mHandler;
    // Orders signalResponse() after a waiter's check of the reply bit; guards
    // no member (the bit is in mStorage).
    utils::Mutex mResponseMutex;
    std::condition_variable mResponseCondition;
};

}  // namespace Kestrel::ipc
