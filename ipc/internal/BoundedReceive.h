// BoundedReceive: the transport's waits for a record, bounded by a deadline.
//
// A message's payload record must follow its header within the payload
// time-out; these calls wait for it (or for room to send) without ever
// waiting past that. Library-internal (UnixDomainSocket). Thread: any; they
// keep no state. Failure: -1 or a negative errno, as each says.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <chrono>

namespace Kestrel::ipc::bounded_receive {

using Clock = std::chrono::steady_clock;

// When a wait for the second record of a message gives up.
struct Deadline {
    bool bounded;
    Clock::time_point at;
};

// Waits until `socketFd` reports `events`, hang-up or an error, or
// `deadline` passes: 0, -ETIMEDOUT, or -errno of ppoll.
int waitUntilReady(int socketFd, short events, const Deadline& deadline);

// recvmsg, taken again when a signal interrupts it. Descriptors arrive with
// close-on-exec set (MSG_CMSG_CLOEXEC), whatever `flags` says, so that no
// fork and exec on another thread can hand them to a stranger.
ssize_t receiveOnce(int socketFd, msghdr* header, int flags);

// recvmsg that never waits past `deadline`. The socket's own receive
// time-out (SO_RCVTIMEO, the payload time-out) bounds the blocking call, so a
// record already there, or one that comes while the call sleeps, costs the
// one call; a call cut short (a signal, or a socket that does not block)
// goes on with a ppoll for what is left. -1 with errno set on failure
// (ETIMEDOUT past the deadline).
ssize_t receiveBy(int socketFd, msghdr* header, int flags, const Deadline& deadline);

// True when `socketFd` blocks (O_NONBLOCK clear).
bool isBlocking(int socketFd);

}  // namespace Kestrel::ipc::bounded_receive
