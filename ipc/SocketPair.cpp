#include <ipc/SocketPair.h>

namespace Kestrel::ipc {

SocketPair::SocketPair(int a, int b) : first(a, 0), second(b, 0) {}

SocketPair::SocketPair(const SocketPair& other)
    : first(other.first.dup(), 0), second(other.second.dup(), 0) {}

}  // namespace Kestrel::ipc
