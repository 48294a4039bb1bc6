#include <ipc/utils/CommandLineUtils.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>

namespace Kestrel::CommandLineUtils {

void navigator(std::string message) {
    std::cout << "[----------] PID(" << getpid() << ") Press ENTER to " << message << "..."
              << std::endl;
    static_cast<void>(std::getchar());
}

}  // namespace Kestrel::CommandLineUtils
