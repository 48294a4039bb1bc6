#include <properties/Properties.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <string>

namespace Kestrel::Utils::Properties {

namespace {

const char* lookUp(const char* key) {
    if (const char* value = std::getenv(key)) {
        return value;
    }
    std::string upper(key);
    for (char& c : upper) {
        c = (c == '.') ? '_' : static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    return std::getenv(upper.c_str());
}

}  // namespace

int32_t property_get_int32(const char* key, int32_t defaultValue) {
    const char* value = key != nullptr ? lookUp(key) : nullptr;
    if (value == nullptr || *value == '\0') {
        return defaultValue;
    }
    errno = 0;
    char* end = nullptr;
    const long parsed = std::strtol(value, &end, 10);
    if (errno != 0 || *end != '\0' || parsed < INT32_MIN || parsed > INT32_MAX) {
        return defaultValue;
    }
    return static_cast<int32_t>(parsed);
}

}  // namespace Kestrel::Utils::Properties
