#include "support/EchoPeer.h"

#include <ipc/Message.h>
#include <ipc/UnixDomainSocket.h>
#include <unistd.h>

#include <utility>

#include "support/RawPeer.h"

namespace velacam::test {

namespace {

using Kestrel::ipc::Message;

int echoUntilClosed(FileDescriptor&& end) {
    Kestrel::ipc::UnixDomainSocket socket;
    socket.bind(std::move(end));
    while (true) {
        Message request;
        if (socket.recv(&request) != 0) {
            return 1;
        }
        if (request.id() == 0) {  // end of stream reads as an empty header
            return 0;
        }
        Message::Payload payload = request.payload();
        for (int fd : payload.fds) {
            close(fd);
        }
        payload.fds.clear();
        Message reply;
        reply.setPayload(payload);
        reply.setHeader(request.id(), 1, Message::kFlagReply,
                        static_cast<uint32_t>(payload.data.size()), 0);
        if (socket.send(reply) != 0) {
            return 2;
        }
    }
}

}  // namespace

pid_t forkEchoPeer(Kestrel::ipc::SocketPair& pair) {
    const pid_t child = forkPeer([&pair] {
        pair.first = FileDescriptor();
        return echoUntilClosed(std::move(pair.second));
    });
    pair.second = FileDescriptor();
    return child;
}

}  // namespace velacam::test
