#include "ReceiveCalls.h"

#include <dlfcn.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>

// The sanitizers' interceptors, where a sanitizer is linked in: the real call
// goes through them so that they keep seeing it.
extern "C" ssize_t __interceptor_recvmsg(int, msghdr*, int) __attribute__((weak));
extern "C" int __interceptor_recvmmsg(int, mmsghdr*, unsigned int, int, timespec*)
        __attribute__((weak));

namespace velacam::test {

namespace {

std::atomic<const ReceiveObserver*> gObserver{nullptr};

template <typename Function>
Function* next(Function* interceptor, const char* name) {
    if (interceptor != nullptr) {
        return interceptor;
    }
    static_assert(sizeof(void*) == sizeof(Function*));
    void* const found = ::dlsym(RTLD_NEXT, name);
    if (found == nullptr) {
        std::fprintf(stderr, "no %s to forward to\n", name);
        std::abort();
    }
    return reinterpret_cast<Function*>(found);
}

}  // namespace

ScopedReceiveObserver::ScopedReceiveObserver(ReceiveObserver observer)
    : mObserver(std::move(observer)) {
    gObserver.store(&mObserver);
}

ScopedReceiveObserver::~ScopedReceiveObserver() { gObserver.store(nullptr); }

}  // namespace velacam::test

using velacam::test::gObserver;
using velacam::test::ReceiveCall;

extern "C" ssize_t recvmsg(int fd, msghdr* record, int flags) {
    static auto* const real = velacam::test::next(&__interceptor_recvmsg, "recvmsg");
    if (const auto* observer = gObserver.load(); observer != nullptr) {
        const msghdr* const records[] = {record};
        (*observer)(ReceiveCall::kRecvmsg, records, 1, flags);
    }
    return real(fd, record, flags);
}

extern "C" int recvmmsg(int fd, mmsghdr* records, unsigned int count, int flags,
                        timespec* timeout) {
    static auto* const real = velacam::test::next(&__interceptor_recvmmsg, "recvmmsg");
    if (const auto* observer = gObserver.load(); observer != nullptr) {
        const msghdr* headers[8] = {};
        const size_t shown = count < 8 ? count : 8;
        for (size_t i = 0; i < shown; ++i) {
            headers[i] = &records[i].msg_hdr;
        }
        (*observer)(ReceiveCall::kRecvmmsg, headers, shown, flags);
    }
    return real(fd, records, count, flags, timeout);
}
