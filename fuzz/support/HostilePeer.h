// The far end of a socket pair played from a fuzz input: it writes the two
// records of a message (header, then payload) as the input dictates, with
// descriptors and control messages of its choosing, and may stop or close
// anywhere. The library's receive then reads what is queued on the other end.
//
// Input layout (what is missing reads as zero):
//   u8   shape           bits 0-1 records written: none, the header, the
//                                 header and the payload, or those and a
//                                 copy of the payload;
//                        bit 2    the peer closes its end afterwards;
//                        bit 3    the header record carries SCM_RIGHTS;
//                        bit 4    the payload record carries SCM_RIGHTS;
//                        bit 5    the payload record also carries explicit
//                                 SCM_CREDENTIALS;
//                        bit 6    the receiver sets SO_PASSCRED (credentials
//                                 then come with every record);
//                        bit 7    the receiver sets SO_TIMESTAMP.
//   u8   header length   modulo 33 (0 to 32 bytes; the receiver takes 24)
//   ...  header bytes    the dataCount field (bytes 12-15) is reduced modulo
//                        kMaxDeclaredData + 1 unless the peer lies (below)
//   u8   header fds      modulo 8: descriptors on the header record
//   u8   payload fds     descriptors on the payload record: below 0xF0, that
//                        value modulo 8; from 0xF0, 245 to 260, around the
//                        kernel's limit of 253 in one record (each descriptor
//                        costs system calls, so most inputs carry few)
//   u16  payload length  the payload record's size, up to 65535 bytes
//   ...  payload bytes
//   u8   liberties       bit 0    the header's dataCount stands as given, up
//                                 to 4 GiB - 1: a lie about a record of at
//                                 most 64 KiB that the receiver must not pay
//                                 for in memory
//
// A peer that writes a header and no payload and stays open stalls: the
// receive waits for the payload record until its time-out. Targets that
// cannot shorten that wait ask for a peer that never stalls: it always closes
// its end once it has written.
//
// Every descriptor sent refers to /dev/null (the process keeps one open from
// load); the copies in flight are the kernel's until received or until the
// pair is closed. Both ends are non-blocking, so neither writing nor receiving
// ever waits: a receive that finds nothing queued returns -11 (EAGAIN), or
// reads the peer's end of stream when it has closed.
#pragma once

#include <sysutils/FileDescriptor.h>

#include <cstddef>
#include <cstdint>
#include <set>

#include "support/FuzzInput.h"

namespace velacam::fuzz {

// The largest data count a played header announces unless the peer lies.
inline constexpr uint32_t kMaxDeclaredData = 1u << 16;

// Whether the played peer may stall between its two records.
enum class Stalling { kAllowed, kNever };

// The two ends of a played pair.
struct PlayedPeer {
    Kestrel::utils::sys::FileDescriptor receiver;  // the end the library receives on
    Kestrel::utils::sys::FileDescriptor peer;      // the peer's end; -1 once it has closed
    size_t payloadBytes;                           // size of the payload record, if any
};

// Plays the peer described by `input` on a new socket pair: the records (and,
// per the input, the peer's end of stream) are queued on the receiving end
// when it returns. Aborts when the pair cannot be made.
PlayedPeer playHostilePeer(FuzzInput& input, Stalling stalling);

// A descriptor of /dev/null, opened at load (before any input takes its
// descriptor snapshot) and kept open: what played records carry.
int devNull();

// The descriptors open in this process (the listing's own excluded).
std::set<int> openDescriptors();

// Aborts, naming them, unless `after` equals `before`.
void expectSameDescriptors(const std::set<int>& before, const std::set<int>& after);

}  // namespace velacam::fuzz
