// What the demo's two processes say to each other.
//
// A request: id = sequence number (from 1), type kProcessBuffers, flags 0,
// data = the buffer size in bytes as 4 host-order bytes, descriptors = the
// request's shared-memory buffers. A reply: the request's id and type, the
// reply flag, and one data byte: the status (kStatusOk, or kStatusFailed when
// a buffer could not be mapped or the request was malformed).
#pragma once

#include <cstdint>

namespace demo {

inline constexpr uint32_t kProcessBuffers = 1;
inline constexpr uint8_t kStatusOk = 0;
inline constexpr uint8_t kStatusFailed = 1;

}  // namespace demo
