// Fuzz input helpers shared by the targets: a reader that takes values from
// the front of the input, and a logger that formats every line the library
// emits but keeps none of them.
#pragma once

#include <ulog/ULogger.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace velacam::fuzz {

// Takes values from the front of the input; once it runs out, what is missing
// reads as zero bytes.
class FuzzInput {
  public:
    FuzzInput(const uint8_t* data, size_t size) : mData(data), mLeft(size) {}

    template <typename T>
    T take() {
        T value{};
        const size_t n = mLeft < sizeof(T) ? mLeft : sizeof(T);
        std::memcpy(&value, mData, n);
        advance(n);
        return value;
    }

    // Exactly `n` bytes: the input's next ones, zero-padded when it runs out.
    std::vector<uint8_t> bytes(size_t n) {
        std::vector<uint8_t> out(n, 0);
        const size_t available = n < mLeft ? n : mLeft;
        if (available != 0) {
            std::memcpy(out.data(), mData, available);
        }
        advance(available);
        return out;
    }

    // At most `n` bytes, as many as the input still has.
    std::vector<uint8_t> bytesUpTo(size_t n) { return bytes(n < mLeft ? n : mLeft); }

  private:
    void advance(size_t n) {
        mData += n;
        mLeft -= n;
    }

    const uint8_t* mData;
    size_t mLeft;
};

// Installed as the unified logger with only that sink selected, so that every
// line the library emits is formatted (its arguments read) but none is
// printed: a fuzz run stays fast and quiet and still exercises the log sites.
class DiscardingLogger : public Kestrel::Utils::ULog::ULogger {
  public:
    void record(uint32_t, const char*, uint32_t, const char*, int) override {}
    void flush(int) override {}

    // Installs one for the rest of the process.
    static void install() {
        static DiscardingLogger sLogger;
        Kestrel::Utils::ULog::ULogger::sULogger = &sLogger;
        Kestrel::Utils::ULog::ULogger::sMode = 2;
    }
};

}  // namespace velacam::fuzz
