#include <ipc/utils/CommandLineUtils.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>

namespace Kestrel::CommandLineUtils {

// NOLINTNEXTLINE(performance-unnecessary-value-param): the exported signature
void navigator(std::string message) {
    std::cout << "[----------] PID(" << getpid() << ") Press ENTER to " << message << "..."
              << std::endl;
    static_cast<void>(std::getchar());
}

}  // namespace Kestrel::CommandLineUtils
