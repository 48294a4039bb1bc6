#include "OutgoingRecord.h"

#include <errno.h>
#include <ipc/utils/Log.h>
#include <poll.h>

#include <algorithm>
#include <cstring>

#include "TransportLogSite.h"

namespace Kestrel::ipc {

namespace {
constexpr const utils::LogSite& kLogSite = kTransportLogSite;

// cmsg_len of the record's descriptor message (the constructor made sure
// there is one).
size_t controlLength(const msghdr& header) {
    const cmsghdr* cmsg = CMSG_FIRSTHDR(&header);
    return cmsg != nullptr ? static_cast<size_t>(cmsg->cmsg_len) : 0;
}
}  // namespace

OutgoingRecord::OutgoingRecord(const void* data, size_t dataSize, const void* fds, size_t fdCount)
    : mControl(fdCount), mVector{const_cast<void*>(data), dataSize} {
    mHeader = mControl.recordHeader(&mVector);
    cmsghdr* cmsg = CMSG_FIRSTHDR(&mHeader);
    if (cmsg == nullptr) {
        IPC_FATAL("invalid struct cmsghdr, please check it");
    }
    cmsg->cmsg_len = CMSG_LEN(sizeof(int) * fdCount);
    cmsg->cmsg_level = SOL_SOCKET;
    cmsg->cmsg_type = SCM_RIGHTS;
    if (fdCount != 0) {
        std::memcpy(CMSG_DATA(cmsg), fds, sizeof(int) * fdCount);
    }
}

int OutgoingRecord::checkDescriptors() {
    const size_t length = controlLength(mHeader);
    const size_t fdCount = std::min(length > CMSG_LEN(0) ? (length - CMSG_LEN(0)) / sizeof(int) : 0,
                                    kMaxRecordDescriptors);
    if (fdCount == 0) {
        return 0;
    }
    // poll() passes over a negative number without a word, and marks one
    // that is not open POLLNVAL; events 0 and no wait: it only looks.
    pollfd entries[kMaxRecordDescriptors];
    const unsigned char* numbers = CMSG_DATA(CMSG_FIRSTHDR(&mHeader));
    for (size_t i = 0; i < fdCount; ++i) {
        int fd;
        std::memcpy(&fd, numbers + i * sizeof(int), sizeof(fd));
        if (fd < 0) {
            return -EBADF;
        }
        entries[i] = pollfd{fd, 0, 0};
    }
    int ready;
    do {
        ready = ::poll(entries, static_cast<nfds_t>(fdCount), 0);
    } while (ready < 0 && errno == EINTR);
    for (size_t i = 0; ready > 0 && i < fdCount; ++i) {
        if ((entries[i].revents & POLLNVAL) != 0) {
            return -EBADF;
        }
    }
    return 0;  // poll() failing otherwise (no memory) leaves the check to the kernel
}

void OutgoingRecord::logBefore(const char* caller, int socketFd) {
    IPC_LOGD("[%s] socketFd(%d)", caller, socketFd);
    IPC_LOGD("[%s] cmsg_space(%zu) cmsg_len(%zu)", caller, mControl.size(), controlLength(mHeader));
}

void OutgoingRecord::logSent(const char* caller, size_t sent) {
    IPC_LOGD("[%s] bytes_sent(%zd) FDS_CMSG_SIZE(%zu)", caller, static_cast<ssize_t>(sent),
             controlLength(mHeader) - CMSG_LEN(0));
}

}  // namespace Kestrel::ipc
