#include "WriteAll.h"

#include <errno.h>
#include <unistd.h>

namespace Kestrel::ipc::observe {

int writeAll(int fd, const char* text, size_t length) {
    while (length > 0) {
        const ssize_t written = ::write(fd, text, length);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written < 0) {
            return -errno;
        }
        if (written == 0) {
            return -EIO;
        }
        text += written;
        length -= static_cast<size_t>(written);
    }
    return 0;
}

}  // namespace Kestrel::ipc::observe
