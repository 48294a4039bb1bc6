// ReceiveBuffer: each receiving thread's buffer for the part of a payload
// record beyond the room its message had for it.
//
// A message carries at most UnixDomainSocket::kMaxInlineData data bytes, so a
// receive that offers the kernel its message's room and, behind it, as much
// of this buffer as makes up that maximum, takes any record a well-behaved
// peer sends in one call, before it knows the record's length; a longer one
// comes back cut (MSG_TRUNC) and is refused. The buffer is kBytes of private
// anonymous memory: that much address space and commit charge per thread that
// receives, resident only as far as records have spilled into it.
//
// Library-internal (UnixDomainSocket). Thread: each thread has its own,
// mapped on its first receive that needs it. It is unmapped when the thread
// ends, after the thread's thread_local destructors (a receive from one of
// them still has it); a receive after that (from another library's
// thread-exit destructor) is told there is none. The main thread's buffer
// stays until the process ends, so static destructors still have it, and so
// does every buffer once the library is unloaded (no thread may end by
// calling into code that is gone).
// Failure: forThisThread() gives null where the buffer cannot be had (no
// memory or address space left); the thread is then told so on every later
// receive too, and reads a record at a time.
#pragma once

#include <ipc/UnixDomainSocket.h>

#include <cstddef>

namespace Kestrel::ipc::receive_buffer {

// What one buffer holds: the most data bytes a message carries inline.
inline constexpr size_t kBytes = UnixDomainSocket::kMaxInlineData;

// This thread's buffer of kBytes, or null when there is none.
unsigned char* forThisThread();

}  // namespace Kestrel::ipc::receive_buffer
