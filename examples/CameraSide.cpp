#include "CameraSide.h"

#include <dirent.h>
#include <ipc/Message.h>
#include <ipc/MessageHandler.h>
#include <ipc/RequestChannel.h>
#include <ipc/SocketPair.h>
#include <ipc/UnixDomainSocket.h>
#include <ipc/utils/Process.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <vector>

#include "ChildWait.h"
#include "DemoProtocol.h"
#include "ProgressLine.h"
#include "RunReport.h"
#include "SharedBuffer.h"

namespace demo {

namespace {

using Kestrel::ipc::Message;
using Kestrel::ipc::MessageHandler;
using Kestrel::ipc::RequestChannel;
using Kestrel::ipc::UnixDomainSocket;
using Kestrel::ipc::utils::Process;
using Clock = std::chrono::steady_clock;

constexpr auto kReplyTimeout = std::chrono::seconds(5);
constexpr unsigned long kSocketBufferBytes = 256 * 1024;

long countOpenDescriptors() {
    long count = 0;
    if (DIR* dir = opendir("/proc/self/fd")) {
        while (dirent* entry = readdir(dir)) {
            count += entry->d_name[0] != '.' ? 1 : 0;
        }
        closedir(dir);
    }
    return count - 1;  // the listing's own descriptor
}

double millisecondsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

}  // namespace

int CameraSide::run() {
    RunReport report;
    const long descriptorsBefore = countOpenDescriptors();
    {
        Kestrel::ipc::SocketPair pair =
                UnixDomainSocket::createPairedSocket(kSocketBufferBytes, kSocketBufferBytes, false);
        if (pair.first.get() < 0) {
            std::fprintf(stderr, "cannot make the socket pair: %s\n",
                         std::strerror(-pair.first.get()));
            return 1;
        }

        if (!startObservation(mOptions.observation)) {
            return 1;
        }
        // The child keeps its end (not close-on-exec) and closes everything else
        // it inherited as soon as it starts.
        Process self;
        const pid_t parent = getpid();
        const std::string childEnd = std::to_string(pair.second.get());
        Process child = self.create(mOptions.program, {"--algorithm-fd", childEnd}, {});
        if (getpid() != parent) {
            _exit(127);  // the program could not be executed in the child
        }
        if (child.pid() < 0) {
            std::fprintf(stderr, "cannot start the algorithm process\n");
            return 1;
        }
        pair.second = Kestrel::utils::sys::FileDescriptor();

        if (mOptions.algorithmPidFd >= 0) {
            const int32_t pid = child.pid();
            if (write(mOptions.algorithmPidFd, &pid, sizeof(pid)) != sizeof(pid)) {
                std::fprintf(stderr, "cannot report the algorithm's pid\n");
            }
        }

        // Replies are matched to their requests by the channel; when the
        // algorithm process goes, its hang-up fails the waiting call at once
        // (instead of after the reply time-out).
        const int cameraEnd = pair.first.get();  // for the counters at the end
        RequestChannel channel(std::move(pair.first));

        const auto start = Clock::now();
        ProgressLine progress(mOptions.requests);
        for (uint32_t id = 1; id <= mOptions.requests; ++id) {
            if (mOptions.cameraDiesAfter && id > *mOptions.cameraDiesAfter) {
                std::printf(
                        "camera: ending abruptly after %zu requests, leaving the algorithm "
                        "process (pid %d) running\n",
                        *mOptions.cameraDiesAfter, child.pid());
                std::fflush(stdout);
                _exit(kCameraDiedOnPurpose);
            }
            if (mOptions.killAlgorithmAfter && id == *mOptions.killAlgorithmAfter + 1) {
                std::printf(
                        "camera: killing the algorithm process (pid %d) with SIGKILL after "
                        "%zu requests\n",
                        child.pid(), *mOptions.killAlgorithmAfter);
                std::fflush(stdout);
                kill(child.pid(), SIGKILL);
                report.algorithmKilled = true;
            }
            std::vector<SharedBuffer> buffers;
            Message::Payload payload;
            const auto bytes = static_cast<uint32_t>(mOptions.bufferBytes);
            payload.data.resize(sizeof(bytes));
            std::memcpy(payload.data.data(), &bytes, sizeof(bytes));
            for (size_t b = 0; b < mOptions.fdsPerRequest; ++b) {
                std::optional<SharedBuffer> buffer =
                        SharedBuffer::create(mOptions.bufferBytes, id * 131 + b);
                if (!buffer) {
                    break;
                }
                payload.fds.push_back(buffer->fd());
                buffers.push_back(std::move(*buffer));
            }
            if (buffers.size() != mOptions.fdsPerRequest) {
                // Not sent: counted among the requests never sent, so the run fails.
                std::fprintf(stderr, "camera: cannot make a shared buffer of %zu bytes: %s\n",
                             mOptions.bufferBytes, std::strerror(errno));
                break;
            }
            Message request;
            request.setHeader(id, kProcessBuffers, 0, 0, 0);
            request.setPayload(payload);

            const auto sent = Clock::now();
            ++report.requests;
            report.buffersExpected += buffers.size();
            std::unique_ptr<Message> reply;
            const int result = channel.call(request, kReplyTimeout, &reply);
            if (result != 0) {
                report.lostRequests.push_back(id);
                if (result == RequestChannel::kPeerGone) {
                    report.hangUpNoticedAfterMs = millisecondsSince(sent);
                } else if (result != RequestChannel::kTimedOut) {
                    std::fprintf(stderr, "camera: request %u failed: %s\n", id,
                                 std::strerror(-result));
                }
                break;
            }
            report.addRoundTrip(Clock::now() - sent);
            report.descriptorsPassed += payload.fds.size();
            ++report.answered;
            const Message::Payload answer = reply->payload();
            const bool ok = !answer.data.empty() && answer.data[0] == kStatusOk;
            report.failedStatuses += ok ? 0 : 1;
            MessageHandler().handleMessage(*reply);  // closes what the reply may carry
            for (const SharedBuffer& buffer : buffers) {
                report.buffersVerified += buffer.holdsReversedPattern() ? 1 : 0;
            }
            progress.update(id);
        }
        progress.finish();
        report.setElapsed(Clock::now() - start);
        report.neverSent = mOptions.requests - report.requests;

        if (!report.algorithmKilled) {
            (void)child.terminate();  // a dead child is reaped all the same
        }
        report.algorithmStatus = waitForChild(child.pid(), std::chrono::seconds(5));
        self.removeFromObservation(child.pid());
        printStatistics("camera", cameraEnd, nullptr, nullptr);
        finishObservation(mOptions.observation);
    }
    report.leakedDescriptors = countOpenDescriptors() - descriptorsBefore;
    report.print();
    return report.success() ? 0 : 1;
}

}  // namespace demo
