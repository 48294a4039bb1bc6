// Test helper: a peer process that answers every message on its end of a
// socket pair with a reply of the same id carrying the same data (the
// descriptors a request carried are closed), until end of stream.
#pragma once

#include <ipc/SocketPair.h>
#include <sys/types.h>

namespace velacam::test {

// Forks the echo peer on `pair.second`; the child closes `pair.first` and the
// parent `pair.second`. Returns the child's pid, whose exit status is 0 when
// it saw end of stream, 1 when a receive failed, 2 when a reply did.
pid_t forkEchoPeer(Kestrel::ipc::SocketPair& pair);

}  // namespace velacam::test
