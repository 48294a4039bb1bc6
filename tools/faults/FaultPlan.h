// Which system calls of the library fail, how, and how often: read once from
// the environment, decided per call by the seed so that a run replays.
//
//   VELACAM_FAULT_SEED    seed of the decisions (default 1)
//   VELACAM_FAULT_RATE    chance that an eligible call fails, 0 to 1 (default 0.05)
//   VELACAM_FAULT_CALLS   comma-separated calls (default all): sendmmsg, sendmsg,
//                         recvmmsg, recvmsg, ppoll, read, write, eventfd, close
//   VELACAM_FAULT_KINDS   comma-separated faults (default all): eintr, eagain,
//                         enomem, emfile, econnreset, short, ctrunc
//   VELACAM_FAULT_LIMIT   the most faults planted in the run (default: no limit)
//   VELACAM_FAULT_REPORT  a file to which the planted faults are appended at exit,
//                         one "call kind count" line each
//
// velacam_faults_planted() (C linkage) tells a program under the interposer
// how many faults took effect so far, so that it can tell a failure that a
// planted fault explains from one that an earlier fault left behind.
//
// Only calls made from the library itself (libvelacam_ipc_core) are eligible,
// and each call takes only the faults the kernel can give it (kApplicable in
// FaultPlan.cpp). Thread: decisions are lock-free; any thread may ask.
#pragma once

#include <cstddef>
#include <cstdint>

namespace velacam::faults {

// clang-format off
enum class Call : uint8_t { kSendmmsg, kSendmsg, kRecvmmsg, kRecvmsg, kPpoll, kRead, kWrite, kEventfd,
                            kClose };
// clang-format on
constexpr size_t kCallCount = 9;
enum class Kind : uint8_t { kEintr, kEagain, kEnomem, kEmfile, kEconnreset, kShort, kCtrunc };
constexpr size_t kKindCount = 7;

// The fault to plant in this call from `caller` (a return address), if any.
bool plant(Call call, const void* caller, Kind& kind);
// Counts a fault that was planted (and, for short and ctrunc, took effect).
void planted(Call call, Kind kind);

}  // namespace velacam::faults
