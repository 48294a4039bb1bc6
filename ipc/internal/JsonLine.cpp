#include "JsonLine.h"

namespace Kestrel::ipc::observe {

JsonLine& JsonLine::text(const char* text) {
    while (*text != '\0' && mLength < kRoom) {
        mText[mLength++] = *text++;
    }
    return *this;
}

JsonLine& JsonLine::digits(uint64_t value, unsigned minimumDigits) {
    char reversed[20];
    unsigned count = 0;
    do {
        reversed[count++] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    while (count < minimumDigits) {
        reversed[count++] = '0';
    }
    while (count > 0 && mLength < kRoom) {
        mText[mLength++] = reversed[--count];
    }
    return *this;
}

JsonLine& JsonLine::signedNumber(int64_t value) {
    if (value < 0) {
        text("-");
        return digits(0 - static_cast<uint64_t>(value), 1);
    }
    return digits(static_cast<uint64_t>(value), 1);
}

JsonLine& JsonLine::number(uint64_t value) { return digits(value, 1); }

JsonLine& JsonLine::micros(int64_t nanoseconds) {
    const uint64_t value = nanoseconds > 0 ? static_cast<uint64_t>(nanoseconds) : 0;
    digits(value / 1000, 1);
    text(".");
    return digits(value % 1000, 3);
}

JsonLine& JsonLine::hexString(uint64_t value) {
    static const char kHex[] = "0123456789abcdef";
    char reversed[16];
    unsigned count = 0;
    do {
        reversed[count++] = kHex[value & 0xf];
        value >>= 4;
    } while (value != 0);
    text("\"0x");
    while (count > 0 && mLength < kRoom) {
        mText[mLength++] = reversed[--count];
    }
    return text("\"");
}

}  // namespace Kestrel::ipc::observe
