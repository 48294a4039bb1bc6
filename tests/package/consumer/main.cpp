// Builds a message through the installed headers and library, runs a lambda
// through FunctionRunnable, and checks that the library it runs with is the
// version its headers name. Poller.h needs C++17 (std::shared_mutex).
#include <ipc/Message.h>
#include <ipc/Poller.h>
#include <ipc/Version.h>
#include <ipc/utils/FunctionRunnable.h>

#include <cstdio>
#include <cstring>

int main() {
    Kestrel::ipc::Message message;
    Kestrel::ipc::Message::Payload payload;
    payload.data = {1, 2, 3};
    message.setPayload(payload);
    bool ran = false;
    Kestrel::ipc::utils::FunctionRunnable runnable([&ran] { ran = true; });
    runnable.run();
    const bool ok =
            message.dataCount() == 3 && message.payload().data == payload.data && ran &&
            std::strcmp(Kestrel::ipc::libraryVersion(), VELACAM_IPC_CORE_VERSION_STRING) == 0;
    std::printf("consumer: %s (library %s)\n", ok ? "ok" : "FAILED",
                Kestrel::ipc::libraryVersion());
    return ok ? 0 : 1;
}
