#include <errno.h>
#include <ipc/UnixDomainSocket.h>
#include <ipc/utils/Log.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

namespace Kestrel::ipc {

namespace {
constexpr utils::LogSite kLogSite{"UnixDomainSocket", "ipc/UnixDomainSocket",
                                  utils::kLogModuleCore};

constexpr int kNotBound = -ENOENT;              // -2
constexpr unsigned long kMinimalBuffer = 4096;  // each buffer of a one-way pair's reverse direction

// Zero-filled room for the control data of one record. Records carry few
// descriptors, so up to kStackDescriptors of them the room is on the stack;
// beyond that (a record may announce up to 65535, 256 KiB of control data, too
// much for a stack) it comes from the heap.
class ControlBuffer {
  public:
    explicit ControlBuffer(size_t size) : mSize(size) {
        if (size <= sizeof(mStack)) {
            std::memset(mStack, 0, size);
            mData = mStack;
        } else {
            mHeap.resize(size);  // zero-filled; operator new aligns for cmsghdr
            mData = mHeap.data();
        }
    }
    ControlBuffer(const ControlBuffer&) = delete;
    ControlBuffer& operator=(const ControlBuffer&) = delete;

    unsigned char* data() { return mData; }
    size_t size() const { return mSize; }

  private:
    static constexpr size_t kStackDescriptors = 64;

    alignas(cmsghdr) unsigned char mStack[CMSG_SPACE(sizeof(int) * kStackDescriptors)];
    std::vector<unsigned char> mHeap;
    unsigned char* mData;
    size_t mSize;
};

msghdr recordHeader(iovec* vector, ControlBuffer& control) {
    msghdr header{};
    header.msg_iov = vector;
    header.msg_iovlen = 1;
    header.msg_control = control.data();
    header.msg_controllen = control.size();
    return header;
}

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

void closeDescriptors(const cmsghdr* cmsg, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        int fd;
        std::memcpy(&fd, CMSG_DATA(cmsg) + i * sizeof(int), sizeof(fd));
        ::close(fd);
    }
}

// Hands the descriptors of a received record to `fds`, or refuses the record.
// Only numbers inside an SCM_RIGHTS message are ever taken for descriptors;
// every one that arrived ends up in `fds` or closed. Debug lines name
// `caller`, the receive they belong to.
int takeDescriptors(const char* caller, const msghdr& header, int* fds, size_t fdCount) {
    const cmsghdr* rights = nullptr;
    for (const cmsghdr* cmsg = CMSG_FIRSTHDR(&header); cmsg != nullptr;
         cmsg = CMSG_NXTHDR(const_cast<msghdr*>(&header), const_cast<cmsghdr*>(cmsg))) {
        if (isRights(cmsg)) {
            rights = cmsg;
            break;
        }
    }
    // No SCM_RIGHTS message (the peer sent no descriptor, or closed): the
    // zeroed buffer says nothing, so nothing arrived.
    const size_t cmsgLen = rights != nullptr ? rights->cmsg_len : 0;
    const size_t arrived = rights != nullptr ? descriptorsIn(header, rights) : 0;
    IPC_LOGD("[%s] cmsg_len(%zu) CMSG_LEN(0)(%zu) cmsg_data_size(%zu)", caller, cmsgLen,
             static_cast<size_t>(CMSG_LEN(0)), arrived * sizeof(int));

    int result = 0;
    if (cmsgLen % sizeof(int) != 0) {
        IPC_LOGE("The data size is not aligned to sizeof(int)");
        result = -EBADMSG;
    }
    // The kernel cuts the control data short (MSG_CTRUNC) when the peer sent
    // more descriptors than the buffer holds, discarding the rest itself.
    const bool truncated = (header.msg_flags & MSG_CTRUNC) != 0;
    if (arrived > fdCount || (truncated && arrived == fdCount)) {
        IPC_LOGE("The number of received fds is larger than expected");
        result = -EMSGSIZE;
    } else if (arrived < fdCount) {
        // Fewer than announced: the peer sent fewer, or this process ran out of
        // descriptor numbers and the kernel closed the rest (MSG_CTRUNC). Some
        // arrived: they are handed over in the first slots and the record
        // stands, as it always has. None arrived: nothing to hand over.
        IPC_LOGE("The number of received fds(%zu) is less than expected(%zu)", arrived, fdCount);
        if (arrived == 0) {
            result = -ENODATA;
        }
    }
    IPC_LOGD("[%s] FDS_CMSG_SIZE(%zu)", caller, sizeof(int) * fdCount);

    for (const cmsghdr* cmsg = CMSG_FIRSTHDR(&header); cmsg != nullptr;
         cmsg = CMSG_NXTHDR(const_cast<msghdr*>(&header), const_cast<cmsghdr*>(cmsg))) {
        if (cmsg == rights) {
            continue;
        }
        IPC_LOGE("unexpected control message level(%d) type(%d)", cmsg->cmsg_level,
                 cmsg->cmsg_type);
        result = -EBADMSG;
        if (isRights(cmsg)) {  // a second descriptor message: refuse its descriptors too
            closeDescriptors(cmsg, descriptorsIn(header, cmsg));
        }
    }

    if (result != 0) {
        closeDescriptors(rights, arrived);
        std::fill(fds, fds + fdCount, -1);
        return result;
    }
    std::memcpy(fds, CMSG_DATA(rights), sizeof(int) * arrived);
    return 0;
}

}  // namespace

SocketPair UnixDomainSocket::createPairedSocket(unsigned long receiveBufferSize,
                                                unsigned long sendBufferSize, bool oneWay) {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends) != 0) {
        const int error = errno;
        IPC_LOGE("create paired sockets failed(%s)", std::strerror(error));
        return SocketPair(-error, -1);
    }
    // The main direction is ends[1] to ends[0]; a one-way pair keeps the
    // reverse direction minimal.
    struct BufferSize {
        int fd;
        int option;
        unsigned long bytes;
    };
    const BufferSize sizes[] = {
            {ends[0], SO_RCVBUF, receiveBufferSize},
            {ends[1], SO_SNDBUF, sendBufferSize},
            {ends[0], SO_SNDBUF, oneWay ? kMinimalBuffer : sendBufferSize},
            {ends[1], SO_RCVBUF, oneWay ? kMinimalBuffer : receiveBufferSize},
    };
    for (const BufferSize& size : sizes) {
        if (::setsockopt(size.fd, SOL_SOCKET, size.option, &size.bytes, sizeof(size.bytes)) != 0) {
            const int error = errno;
            IPC_LOGE("set sockets failed(%s)", std::strerror(error));
            ::close(ends[0]);
            ::close(ends[1]);
            return SocketPair(-error, -1);
        }
    }
    IPC_LOGD("[%s] socketpair created (%d, %d)", __func__, ends[0], ends[1]);
    return SocketPair(ends[0], ends[1]);
}

UnixDomainSocket::~UnixDomainSocket() = default;

void UnixDomainSocket::bind(Kestrel::utils::sys::FileDescriptor&& fd) { mSocketFd = std::move(fd); }

bool UnixDomainSocket::isBound() const { return mSocketFd.get() >= 0; }

int UnixDomainSocket::send(const Message& message) {
    const auto [header, headerSize] = message.header();
    const int result = sendDataAndFileDescriptors(nullptr, 0, header, headerSize);
    if (result < 0) {
        IPC_LOGE("send message header failed (%s)", std::strerror(errno));
        return result;
    }
    return send(message.payload());
}

int UnixDomainSocket::send(const Message::Payload& payload) {
    return sendDataAndFileDescriptors(payload.fds.data(), payload.fds.size(), payload.data.data(),
                                      payload.data.size());
}

int UnixDomainSocket::recv(Message* message) {
    if (message == nullptr) {
        IPC_LOGE("invalid message");
        return -EFAULT;
    }
    const auto [header, headerSize] = message->header();
    int result = receiveDataAndFileDescriptors(nullptr, 0, header, headerSize);
    if (result < 0) {
        IPC_LOGE("recv message header failed (%s)", std::strerror(errno));
        return result;
    }
    Message::Payload payload;
    payload.data.resize(message->dataCount());
    // -1 rather than 0 in every slot: a slot whose descriptor was lost keeps
    // it, so that whoever closes the slots never closes descriptor 0.
    payload.fds.assign(message->fileDescriptorCount(), -1);
    result = recv(&payload);
    if (result < 0) {
        IPC_LOGE("receive file descriptors and message failed (%s)", std::strerror(errno));
        return result;
    }
    message->setPayload(payload);
    return 0;
}

int UnixDomainSocket::recv(Message::Payload* payload) {
    if (payload == nullptr) {
        // The text is the one this path has always logged, wrong as it reads.
        IPC_LOGE("The data size is not aligned to sizeof(int)");
        return -EFAULT;
    }
    return receiveDataAndFileDescriptors(payload->fds.data(), payload->fds.size(),
                                         payload->data.data(), payload->data.size());
}

int UnixDomainSocket::sendDataAndFileDescriptors(const int* fds, size_t fdCount, const void* data,
                                                 size_t dataSize) {
    const int socketFd = mSocketFd.get();
    if (socketFd < 0) {
        return kNotBound;
    }
    IPC_LOGD("[%s] socketFd(%d)", __func__, socketFd);
    const size_t fdsCmsgSize = sizeof(int) * fdCount;
    const size_t cmsgLen = CMSG_LEN(fdsCmsgSize);
    const size_t cmsgSpace = CMSG_SPACE(fdsCmsgSize);
    IPC_LOGD("[%s] cmsg_space(%zu) cmsg_len(%zu)", __func__, cmsgSpace, cmsgLen);

    ControlBuffer control(cmsgSpace);
    iovec vector{const_cast<void*>(data), dataSize};
    msghdr header = recordHeader(&vector, control);
    cmsghdr* cmsg = CMSG_FIRSTHDR(&header);
    if (cmsg == nullptr) {
        IPC_FATAL("invalid struct cmsghdr, please check it");
    }
    cmsg->cmsg_len = cmsgLen;
    cmsg->cmsg_level = SOL_SOCKET;
    cmsg->cmsg_type = SCM_RIGHTS;
    if (fdsCmsgSize != 0) {
        std::memcpy(CMSG_DATA(cmsg), fds, fdsCmsgSize);
    }

    ssize_t sent;
    do {
        // MSG_NOSIGNAL: a vanished peer is an error to return (EPIPE), not a
        // reason to kill the process with SIGPIPE.
        sent = ::sendmsg(socketFd, &header, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    if (sent < 0) {
        const int error = errno;
        if (error != EAGAIN) {
            IPC_LOGE("sendmsg failed (%s)", std::strerror(error));
        }
        return -error;
    }
    IPC_LOGD("[%s] bytes_sent(%zd) FDS_CMSG_SIZE(%zu)", __func__, sent, fdsCmsgSize);
    return 0;
}

int UnixDomainSocket::receiveDataAndFileDescriptors(int* fds, size_t fdCount, void* data,
                                                    size_t dataSize) {
    const int socketFd = mSocketFd.get();
    if (socketFd < 0) {
        return kNotBound;
    }
    IPC_LOGD("[%s] socketFd(%d)", __func__, socketFd);
    const size_t cmsgSpace = CMSG_SPACE(sizeof(int) * fdCount);
    IPC_LOGD("[%s] hasAncillaryData(%s) cmsg_space(%zu)", __func__, fdCount != 0 ? "yes" : "no",
             cmsgSpace);

    ControlBuffer control(cmsgSpace);
    iovec vector{data, dataSize};
    msghdr header = recordHeader(&vector, control);
    ssize_t received;
    do {
        received = ::recvmsg(socketFd, &header, 0);
    } while (received < 0 && errno == EINTR);
    if (received < 0) {
        const int error = errno;
        if (error != EAGAIN) {
            IPC_LOGE("recvmsg failed (%s)", std::strerror(error));
        }
        return -error;
    }
    // Neither the byte count nor MSG_TRUNC is examined: a record is taken for
    // what it is, and end of stream (0 bytes) is not told apart here.
    if (fdCount == 0) {
        IPC_LOGW("no ancillary data, do not handle the cmsg part");
        return 0;
    }
    return takeDescriptors(__func__, header, fds, fdCount);
}

Poller UnixDomainSocket::getPoller(short events) const {
    Poller poller;
    poller.registerPollEvent(mSocketFd.get(), events);
    return poller;
}

}  // namespace Kestrel::ipc
