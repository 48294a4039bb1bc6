// RoomWait: how long one send may wait for room in its socket's send buffer.
//
// The bound is the socket's send time-out, counted from the first time a
// record of the send could not go at once, so that a send that finds room
// never reads the clock. A peer that closes ends a wait at once (the socket
// reports a hang-up). Library-internal (UnixDomainSocket). Thread: the one
// sending; one object per send. Failure: negative errno values, as each says.
#pragma once

#include <chrono>

#include "BoundedReceive.h"

namespace Kestrel::ipc {

class RoomWait {
  public:
    // `timeout` 0 waits without limit.
    RoomWait(int socketFd, std::chrono::milliseconds timeout);

    // Waits until the socket has room for a record (the kernel reports it
    // writable once three quarters of its send buffer are free), reports a
    // hang-up or an error, or the bound passes: 0, -ETIMEDOUT, or -errno of
    // ppoll. After 0 the next send says which it was.
    int forRoom();
    // After the kernel could not allocate a record (ENOBUFS, ENOMEM): a pause
    // of a millisecond, or less when the bound is nearer. 0, or -ETIMEDOUT
    // once the bound has passed.
    int afterNoMemory();
    // True for a socket its owner made non-blocking: a send that finds no
    // room for its first record returns at once.
    bool socketIsNonBlocking() const;
    std::chrono::milliseconds timeout() const { return mTimeout; }

  private:
    void start();

    int mSocketFd;
    std::chrono::milliseconds mTimeout;
    bool mStarted = false;
    bounded_receive::Deadline mDeadline{false, {}};
};

}  // namespace Kestrel::ipc
