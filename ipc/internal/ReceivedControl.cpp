#include "ReceivedControl.h"

#include <errno.h>
#include <ipc/utils/Log.h>

#include <algorithm>
#include <cstring>

#include "ReceivedDescriptors.h"
#include "TransportLogSite.h"

namespace Kestrel::ipc::received_control {

namespace {
constexpr const utils::LogSite& kLogSite = kTransportLogSite;

// The descriptors in `cmsg` that lie inside the control bytes the kernel
// filled (msg_controllen as returned), whatever cmsg_len claims.
size_t descriptorsIn(const msghdr& header, const cmsghdr* cmsg) {
    const auto* end = static_cast<const unsigned char*>(header.msg_control) + header.msg_controllen;
    const unsigned char* begin = CMSG_DATA(cmsg);
    if (cmsg->cmsg_len < CMSG_LEN(0) || begin > end) {
        return 0;
    }
    const size_t declared = cmsg->cmsg_len - CMSG_LEN(0);
    return std::min(declared, static_cast<size_t>(end - begin)) / sizeof(int);
}

bool isRights(const cmsghdr* cmsg) {
    return cmsg->cmsg_level == SOL_SOCKET && cmsg->cmsg_type == SCM_RIGHTS;
}

const cmsghdr* nextControl(const msghdr& header, const cmsghdr* cmsg) {
    return CMSG_NXTHDR(const_cast<msghdr*>(&header), const_cast<cmsghdr*>(cmsg));
}

}  // namespace

void clearSlots(void* fds, size_t count) {
    const int unset = -1;
    for (size_t i = 0; i < count; ++i) {
        std::memcpy(static_cast<unsigned char*>(fds) + i * sizeof(int), &unset, sizeof(int));
    }
}

void closeAllReceived(const msghdr& header) {
    for (const cmsghdr* cmsg = CMSG_FIRSTHDR(&header); cmsg != nullptr;
         cmsg = nextControl(header, cmsg)) {
        if (isRights(cmsg)) {
            const ReceivedDescriptors dropped(cmsg, descriptorsIn(header, cmsg));
        }
    }
}

int takeDescriptors(const char* caller, const msghdr& header, void* fds, size_t fdCount) {
    const cmsghdr* rights = nullptr;
    for (const cmsghdr* cmsg = CMSG_FIRSTHDR(&header); cmsg != nullptr;
         cmsg = nextControl(header, cmsg)) {
        if (isRights(cmsg)) {
            rights = cmsg;
            break;
        }
    }
    // No SCM_RIGHTS message (the peer sent no descriptor, or closed): the
    // zeroed buffer says nothing, so nothing arrived.
    const size_t cmsgLen = rights != nullptr ? rights->cmsg_len : 0;
    ReceivedDescriptors arrived(rights, rights != nullptr ? descriptorsIn(header, rights) : 0);
    IPC_LOGD("[%s] cmsg_len(%zu) CMSG_LEN(0)(%zu) cmsg_data_size(%zu)", caller, cmsgLen,
             static_cast<size_t>(CMSG_LEN(0)), arrived.count() * sizeof(int));

    int result = 0;
    if (cmsgLen % sizeof(int) != 0) {
        IPC_LOGE("The data size is not aligned to sizeof(int)");
        result = -EBADMSG;
    }
    // The kernel cuts the control data short (MSG_CTRUNC) when the peer sent
    // more descriptors than the buffer holds, discarding the rest itself.
    const bool truncated = (header.msg_flags & MSG_CTRUNC) != 0;
    if (arrived.count() > fdCount || (truncated && arrived.count() == fdCount)) {
        IPC_LOGE("The number of received fds is larger than expected");
        result = -EMSGSIZE;
    } else if (arrived.count() < fdCount) {
        // Fewer than announced: the peer sent fewer, or this process ran out of
        // descriptor numbers and the kernel closed the rest (MSG_CTRUNC). Some
        // arrived: they are handed over in the first slots and the record
        // stands. None arrived: nothing to hand over.
        IPC_LOGE("The number of received fds(%zu) is less than expected(%zu)", arrived.count(),
                 fdCount);
        if (arrived.count() == 0) {
            result = -ENODATA;
        }
    }
    IPC_LOGD("[%s] FDS_CMSG_SIZE(%zu)", caller, sizeof(int) * fdCount);

    for (const cmsghdr* cmsg = CMSG_FIRSTHDR(&header); cmsg != nullptr;
         cmsg = nextControl(header, cmsg)) {
        if (cmsg == rights) {
            continue;
        }
        IPC_LOGE("unexpected control message level(%d) type(%d)", cmsg->cmsg_level,
                 cmsg->cmsg_type);
        result = -EBADMSG;
        if (isRights(cmsg)) {  // a second descriptor message: refuse its descriptors too
            const ReceivedDescriptors refused(cmsg, descriptorsIn(header, cmsg));
        }
    }

    if (result != 0) {
        clearSlots(fds, fdCount);
        return result;  // `arrived` closes what came
    }
    arrived.handOver(fds);
    return 0;
}

}  // namespace Kestrel::ipc::received_control
