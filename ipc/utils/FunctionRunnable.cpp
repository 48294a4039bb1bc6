#include <ipc/utils/FunctionRunnable.h>

#include <utility>

namespace Kestrel::ipc::utils {

FunctionRunnable::FunctionRunnable(std::function<void()> function)
    : mFunction(std::move(function)) {}

void FunctionRunnable::run() { mFunction(); }

}  // namespace Kestrel::ipc::utils
