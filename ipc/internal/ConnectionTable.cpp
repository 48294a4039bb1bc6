#include "ConnectionTable.h"

#include <initializer_list>
#include <memory>
#include <new>

namespace Kestrel::ipc::observe {

namespace {

constexpr int kChunkSlots = 64;
constexpr int kChunks = ConnectionTable::kLimit / kChunkSlots;

struct Chunk {
    ConnectionSlot slots[kChunkSlots];
};

std::atomic<Chunk*> sChunks[kChunks];

void store(std::atomic<uint64_t>& figure, uint64_t value) {
    figure.store(value, std::memory_order_relaxed);
}

uint64_t load(const std::atomic<uint64_t>& figure) {
    return figure.load(std::memory_order_relaxed);
}

// The slot of `fd` if its chunk was ever made; null otherwise.
ConnectionSlot* madeSlot(int fd) {
    if (fd < 0 || fd >= ConnectionTable::kLimit) {
        return nullptr;
    }
    Chunk* chunk = sChunks[fd / kChunkSlots].load(std::memory_order_acquire);
    return chunk != nullptr ? &chunk->slots[fd % kChunkSlots] : nullptr;
}

}  // namespace

void ConnectionSlot::reset() {
    for (auto* figure : {&sentMessages, &sentBytes, &sentDescriptors, &receivedMessages,
                         &receivedBytes, &receivedDescriptors, &receiveFailures,
                         &payloadWaitsRanOut, &outOfStep, &descriptorsDropped, &largestRecord}) {
        store(*figure, 0);
    }
    for (auto& reason : refused) {
        store(reason, 0);
    }
}

void ConnectionSlot::noteLargest(uint64_t bytes) {
    uint64_t largest = load(largestRecord);
    while (bytes > largest &&
           !largestRecord.compare_exchange_weak(largest, bytes, std::memory_order_relaxed)) {
    }
}

ConnectionStatistics ConnectionSlot::copy() const {
    ConnectionStatistics figures;
    figures.sentMessages = load(sentMessages);
    figures.sentBytes = load(sentBytes);
    figures.sentDescriptors = load(sentDescriptors);
    figures.receivedMessages = load(receivedMessages);
    figures.receivedBytes = load(receivedBytes);
    figures.receivedDescriptors = load(receivedDescriptors);
    for (size_t i = 0; i < ConnectionStatistics::kRefusalReasons; ++i) {
        figures.refused[i] = load(refused[i]);
    }
    figures.receiveFailures = load(receiveFailures);
    figures.payloadWaitsRanOut = load(payloadWaitsRanOut);
    figures.outOfStep = load(outOfStep);
    figures.descriptorsDropped = load(descriptorsDropped);
    figures.largestRecord = load(largestRecord);
    return figures;
}

ConnectionSlot* ConnectionTable::slotFor(int fd) {
    if (fd < 0 || fd >= kLimit) {
        return nullptr;
    }
    std::atomic<Chunk*>& entry = sChunks[fd / kChunkSlots];
    Chunk* chunk = entry.load(std::memory_order_acquire);
    if (chunk == nullptr) {
        auto made = std::unique_ptr<Chunk>(new (std::nothrow) Chunk);
        if (!made) {
            return nullptr;
        }
        if (entry.compare_exchange_strong(chunk, made.get(), std::memory_order_acq_rel)) {
            chunk = made.release();  // kept for the life of the process
        }
        // Otherwise another thread made it first: `chunk` holds its pointer.
    }
    return &chunk->slots[fd % kChunkSlots];
}

const ConnectionSlot* ConnectionTable::find(int fd) { return madeSlot(fd); }

void ConnectionTable::reset(int fd) {
    if (ConnectionSlot* slot = madeSlot(fd)) {
        slot->reset();
    }
}

}  // namespace Kestrel::ipc::observe
