#include "ResultText.h"

#include <cerrno>
#include <cstring>

namespace Kestrel::ipc {

const char* resultText(int result) {
    if (result >= 0) {
        return "no error";
    }
    if (result == -ENOENT) {
        return "socket not bound";
    }
    return std::strerror(-result);
}

}  // namespace Kestrel::ipc
