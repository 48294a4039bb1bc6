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

// Fails the call with the planted error.
template <typename Result>
Result fail(Call call, Kind kind) {
    constexpr int kErrno[] = {EINTR, EAGAIN, ENOMEM, EMFILE, ECONNRESET, 0, 0};
    velacam::faults::planted(call, kind);
    errno = kErrno[static_cast<size_t>(kind)];
    return static_cast<Result>(-1);
}

// Fails a call of `caller` (the interposer's return address) with a planted
// error, or makes the real one.
template <typename Function, typename... Args>
auto failOrCall(Call call, const void* caller, Function real, Args... args) {
    Kind kind;
    if (velacam::faults::plant(call, caller, kind)) {
        return fail<decltype(real(args...))>(call, kind);
    }
    return real(args...);
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
    return failOrCall(Call::kSendmsg, __builtin_return_address(0), real, fd, header, flags);
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
    return failOrCall(Call::kPpoll, __builtin_return_address(0), real, fds, count, timeout, mask);
}

ssize_t read(int fd, void* buffer, size_t size) {
    static const auto real = next<ssize_t (*)(int, void*, size_t)>("read");
    return failOrCall(Call::kRead, __builtin_return_address(0), real, fd, buffer, size);
}

ssize_t write(int fd, const void* buffer, size_t size) {
    static const auto real = next<ssize_t (*)(int, const void*, size_t)>("write");
    return failOrCall(Call::kWrite, __builtin_return_address(0), real, fd, buffer, size);
}

int eventfd(unsigned int initial, int flags) {
    static const auto real = next<int (*)(unsigned int, int)>("eventfd");
    return failOrCall(Call::kEventfd, __builtin_return_address(0), real, initial, flags);
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
