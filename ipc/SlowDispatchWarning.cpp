#include <ipc/MessageLoop.h>
#include <ipc/SlowDispatchWarning.h>

#include "internal/LoopRecord.h"
#include "internal/ObserveSwitches.h"
#include "internal/SideTable.h"

namespace Kestrel::ipc {

void SlowDispatchWarning::watch(MessageLoop& loop, std::chrono::milliseconds threshold) {
    observe::LoopRecord* record =
            observe::SideTable<observe::LoopRecord>::instance().recordFor(&loop.messageQueue());
    if (record == nullptr) {
        return;
    }
    const int64_t nanoseconds =
            std::chrono::duration_cast<std::chrono::nanoseconds>(threshold).count();
    record->watch(nanoseconds > 0 ? nanoseconds : 0);
    if (nanoseconds > 0) {
        // Stays on once any loop was watched: one more load per dispatch.
        observe::turnOn(observe::kSlowWatch);
    }
}

std::chrono::milliseconds SlowDispatchWarning::thresholdOf(MessageLoop& loop) {
    int64_t nanoseconds = 0;
    observe::SideTable<observe::LoopRecord>::instance().read(
            &loop.messageQueue(), [&nanoseconds](const observe::LoopRecord& record) {
                nanoseconds = record.slowThresholdNs();
            });
    return std::chrono::duration_cast<std::chrono::milliseconds>(
            std::chrono::nanoseconds(nanoseconds));
}

}  // namespace Kestrel::ipc
