// The interposed system calls. Each forwards to the C library's own
// (dlsym(RTLD_NEXT)) unless the plan plants a fault in it; a planted error
// returns -1 with its errno before anything happens, as the kernel fails
// these calls, except close, which closes the descriptor first (on Linux a
// close interrupted by a signal has closed it). A short sendmmsg or recvmmsg
// moves one message of those asked for; a truncated control part gives
// recvmsg or recvmmsg less room for descriptors, so that the kernel closes
// the ones that do not fit and sets MSG_CTRUNC.
#include <dlfcn.h>
#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>

#include "FaultPlan.h"

using velacam::faults::Call;
using velacam::faults::Kind;

namespace {

template <typename Function>
Function next(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

int errnoOf(Kind kind) {
    switch (kind) {
        case Kind::kEintr:
            return EINTR;
        case Kind::kEagain:
            return EAGAIN;
        case Kind::kEnomem:
            return ENOMEM;
        case Kind::kEmfile:
            return EMFILE;
        case Kind::kEconnreset:
            return ECONNRESET;
        default:
            return 0;
    }
}

// Fails the call with the planted error.
template <typename Result>
Result fail(Call call, Kind kind) {
    velacam::faults::planted(call, kind);
    errno = errnoOf(kind);
    return static_cast<Result>(-1);
}

// Leaves room for at most two descriptors (chosen by `pick`) where `header`
// had more; false when it had room for less than two.
bool narrowControl(msghdr& header, uint64_t pick) {
    const size_t room = header.msg_controllen < sizeof(cmsghdr)
                                ? 0
                                : (header.msg_controllen - sizeof(cmsghdr)) / sizeof(int);
    if (header.msg_control == nullptr || room < 2) {
        return false;
    }
    const size_t kept = pick % 3;
    header.msg_controllen = kept == 0 ? sizeof(cmsghdr) : CMSG_LEN(kept * sizeof(int));
    return true;
}

std::atomic<uint64_t> gPicks{0};

}  // namespace

extern "C" {

int sendmmsg(int fd, mmsghdr* vector, unsigned int count, int flags) {
    static const auto real = next<int (*)(int, mmsghdr*, unsigned int, int)>("sendmmsg");
    Kind kind;
    if (velacam::faults::plant(Call::kSendmmsg, __builtin_return_address(0), kind)) {
        if (kind != Kind::kShort) {
            return fail<int>(Call::kSendmmsg, kind);
        }
        if (count > 1) {
            const int sent = real(fd, vector, 1, flags);
            if (sent == 1) {
                velacam::faults::planted(Call::kSendmmsg, kind);
            }
            return sent;
        }
    }
    return real(fd, vector, count, flags);
}

ssize_t sendmsg(int fd, const msghdr* header, int flags) {
    static const auto real = next<ssize_t (*)(int, const msghdr*, int)>("sendmsg");
    Kind kind;
    if (velacam::faults::plant(Call::kSendmsg, __builtin_return_address(0), kind)) {
        return fail<ssize_t>(Call::kSendmsg, kind);
    }
    return real(fd, header, flags);
}

int recvmmsg(int fd, mmsghdr* vector, unsigned int count, int flags, timespec* timeout) {
    static const auto real = next<int (*)(int, mmsghdr*, unsigned int, int, timespec*)>("recvmmsg");
    Kind kind;
    if (velacam::faults::plant(Call::kRecvmmsg, __builtin_return_address(0), kind)) {
        if (kind == Kind::kShort && count > 1) {
            const int received = real(fd, vector, 1, flags, timeout);
            if (received == 1) {
                velacam::faults::planted(Call::kRecvmmsg, kind);
            }
            return received;
        }
        if (kind == Kind::kCtrunc) {
            bool narrowed = false;
            for (unsigned int i = 0; i < count; ++i) {
                narrowed = narrowControl(vector[i].msg_hdr, gPicks.fetch_add(7919)) || narrowed;
            }
            const int received = real(fd, vector, count, flags, timeout);
            for (int i = 0; narrowed && i < received; ++i) {
                if ((vector[i].msg_hdr.msg_flags & MSG_CTRUNC) != 0) {
                    velacam::faults::planted(Call::kRecvmmsg, kind);
                    break;
                }
            }
            return received;
        }
        if (kind != Kind::kShort) {
            return fail<int>(Call::kRecvmmsg, kind);
        }
    }
    return real(fd, vector, count, flags, timeout);
}

ssize_t recvmsg(int fd, msghdr* header, int flags) {
    static const auto real = next<ssize_t (*)(int, msghdr*, int)>("recvmsg");
    Kind kind;
    if (velacam::faults::plant(Call::kRecvmsg, __builtin_return_address(0), kind)) {
        if (kind != Kind::kCtrunc) {
            return fail<ssize_t>(Call::kRecvmsg, kind);
        }
        const bool narrowed = narrowControl(*header, gPicks.fetch_add(7919));
        const ssize_t received = real(fd, header, flags);
        if (narrowed && received >= 0 && (header->msg_flags & MSG_CTRUNC) != 0) {
            velacam::faults::planted(Call::kRecvmsg, kind);
        }
        return received;
    }
    return real(fd, header, flags);
}

int ppoll(pollfd* fds, nfds_t count, const timespec* timeout, const sigset_t* mask) {
    static const auto real =
            next<int (*)(pollfd*, nfds_t, const timespec*, const sigset_t*)>("ppoll");
    Kind kind;
    if (velacam::faults::plant(Call::kPpoll, __builtin_return_address(0), kind)) {
        return fail<int>(Call::kPpoll, kind);
    }
    return real(fds, count, timeout, mask);
}

ssize_t read(int fd, void* buffer, size_t size) {
    static const auto real = next<ssize_t (*)(int, void*, size_t)>("read");
    Kind kind;
    if (velacam::faults::plant(Call::kRead, __builtin_return_address(0), kind)) {
        return fail<ssize_t>(Call::kRead, kind);
    }
    return real(fd, buffer, size);
}

ssize_t write(int fd, const void* buffer, size_t size) {
    static const auto real = next<ssize_t (*)(int, const void*, size_t)>("write");
    Kind kind;
    if (velacam::faults::plant(Call::kWrite, __builtin_return_address(0), kind)) {
        return fail<ssize_t>(Call::kWrite, kind);
    }
    return real(fd, buffer, size);
}

int eventfd(unsigned int initial, int flags) {
    static const auto real = next<int (*)(unsigned int, int)>("eventfd");
    Kind kind;
    if (velacam::faults::plant(Call::kEventfd, __builtin_return_address(0), kind)) {
        return fail<int>(Call::kEventfd, kind);
    }
    return real(initial, flags);
}

int close(int fd) {
    static const auto real = next<int (*)(int)>("close");
    Kind kind;
    if (velacam::faults::plant(Call::kClose, __builtin_return_address(0), kind)) {
        (void)real(fd);
        return fail<int>(Call::kClose, kind);
    }
    return real(fd);
}

}  // extern "C"
