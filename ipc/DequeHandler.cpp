#include <ipc/DequeHandler.h>
#include <ipc/utils/Log.h>

#include <utility>

namespace Kestrel::ipc {

namespace {
constexpr utils::LogSite kLogSite{"DequeHandler", "ipc/DequeHandler", utils::kLogModuleSync};
}  // namespace

DequeHandler::DequeHandler(int id) : mId(id) {}

DequeHandler::~DequeHandler() = default;

void DequeHandler::setRunnable(std::shared_ptr<utils::Runnable>&& runnable) {
    mRunnable = std::move(runnable);  // leaves the argument empty
}

void DequeHandler::handleDeque() {
    // A copy: the runnable may replace itself through setRunnable() while it
    // runs, and must live until it returns.
    const std::shared_ptr<utils::Runnable> runnable = mRunnable;
    if (!runnable) {
        IPC_LOGE("The runnable is invalid, do nothing");
        return;
    }
    runnable->run();
}

}  // namespace Kestrel::ipc
