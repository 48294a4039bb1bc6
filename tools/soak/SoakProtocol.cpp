#include "SoakProtocol.h"

#include <cstdio>

namespace velacam::soak {

int descriptorTag(char* out, size_t room, uint32_t client, uint32_t seq, uint32_t j) {
    return std::snprintf(out, room, "soak client %u request %u descriptor %u", client, seq, j);
}

const char* roleName(Role role) {
    switch (role) {
        case Role::kWellBehaved:
            return "well-behaved";
        case Role::kRequesterToKill:
            return "killed at a random moment";
        case Role::kRequesterToStop:
            return "stopped (SIGSTOP) for seconds, then resumed";
        case Role::kHalfSender:
            return "killed between header and payload";
        case Role::kStaller:
            return "stalling between records";
        case Role::kLiar:
            return "lying about sizes";
        case Role::kFullDescriptors:
            return "sending 253 descriptors";
        case Role::kDeaf:
            return "never reading its replies";
    }
    return "?";
}

const char* lieName(Lie lie) {
    switch (lie) {
        case Lie::kShortPayload:
            return "payload shorter than announced";
        case Lie::kLongPayload:
            return "payload longer than announced";
        case Lie::kHugeAnnouncement:
            return "1 GiB announced, 3 bytes sent";
        case Lie::kMissingFds:
            return "descriptors announced, none sent";
        case Lie::kExtraFds:
            return "more descriptors than announced";
        case Lie::kHeaderOnly:
            return "header without its payload record";
    }
    return "?";
}

size_t errorSlot(int error) {
    for (size_t i = 0; i < kErrorKinds - 1; ++i) {
        if (kCountedErrors[i] == error) {
            return i;
        }
    }
    return kErrorKinds - 1;
}

const char* errorName(size_t slot) {
    static const char* const kNames[] = {
            "-11 EAGAIN",      "-12 ENOMEM",     "-22 EINVAL",   "-32 EPIPE",
            "-61 ENODATA",     "-74 EBADMSG",    "-90 EMSGSIZE", "-103 ECONNABORTED",
            "-104 ECONNRESET", "-110 ETIMEDOUT", "other"};
    static_assert(sizeof(kNames) / sizeof(kNames[0]) == kErrorKinds);
    return slot < kErrorKinds ? kNames[slot] : "?";
}

}  // namespace velacam::soak
