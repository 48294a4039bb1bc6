#include "support/Emulation.h"

#include <sys/socket.h>
#include <unistd.h>

#include <set>

#include "support/Descriptors.h"
#include "support/RawPeer.h"

namespace velacam::test {

bool undeliveredDescriptorsStayOpen() {
    static const bool sStayOpen = [] {
        int ends[2];
        if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
            return false;
        }
        const FileDescriptor receiver(ends[0], 0);
        const FileDescriptor sender(ends[1], 0);
        const std::set<int> before = openDescriptors();
        // One descriptor sent, room for none: the kernel drops it.
        if (writeRecord(sender.get(), "x", 1, {sender.get()}) != 1) {
            return false;
        }
        // The receive the library makes when it expects no descriptor: a
        // control buffer of one bare header. What it holds is not looked at.
        char byte;
        iovec vector{&byte, 1};
        alignas(cmsghdr) unsigned char control[CMSG_SPACE(0)];
        msghdr header{};
        header.msg_iov = &vector;
        header.msg_iovlen = 1;
        header.msg_control = control;
        header.msg_controllen = sizeof(control);
        if (::recvmsg(receiver.get(), &header, 0) != 1) {
            return false;
        }
        bool kept = false;
        for (int fd : openDescriptors()) {
            if (before.count(fd) == 0) {
                ::close(fd);
                kept = true;
            }
        }
        return kept;
    }();
    return sStayOpen;
}

}  // namespace velacam::test
