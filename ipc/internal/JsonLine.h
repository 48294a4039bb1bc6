// A line of JSON built in a fixed buffer by appending pieces: text taken as
// it is, and numbers formatted by hand (snprintf costs some twenty times as
// much per event). Library-internal; the trace file's writer.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Kestrel::ipc::observe {

class JsonLine {
  public:
    static constexpr size_t kRoom = 768;

    // `text` as it is (the caller quotes and escapes).
    JsonLine& text(const char* text);
    JsonLine& signedNumber(int64_t value);
    JsonLine& number(uint64_t value);
    // Nanoseconds as microseconds with three decimals: 1234567 as 1234.567.
    JsonLine& micros(int64_t nanoseconds);
    // A quoted hexadecimal number: "0x2a".
    JsonLine& hexString(uint64_t value);

    const char* data() const { return mText; }
    // What fitted: a line longer than kRoom is cut short.
    size_t size() const { return mLength; }

  private:
    JsonLine& digits(uint64_t value, unsigned minimumDigits);

    char mText[kRoom];
    size_t mLength = 0;
};

}  // namespace Kestrel::ipc::observe
