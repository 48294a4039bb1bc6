// Builds a message through the installed headers and library, and checks that
// its payload comes back.
#include <ipc/Message.h>

#include <cstdio>

int main() {
    Kestrel::ipc::Message message;
    Kestrel::ipc::Message::Payload payload;
    payload.data = {1, 2, 3};
    message.setPayload(payload);
    const bool ok = message.dataCount() == 3 && message.payload().data == payload.data;
    std::puts(ok ? "consumer: ok" : "consumer: payload mismatch");
    return ok ? 0 : 1;
}
