#include "CameraSide.h"

#include <dirent.h>
#include <ipc/CBRegistry.h>
#include <ipc/DefaultReactor.h>
#include <ipc/EventHandler.h>
#include <ipc/Message.h>
#include <ipc/SocketEventHandler.h>
#include <ipc/SocketPair.h>
#include <ipc/UnixDomainSocket.h>
#include <ipc/utils/FunctionRunnable.h>
#include <ipc/utils/Mutex.h>
#include <ipc/utils/Process.h>
#include <ipc/utils/Thread.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <map>
#include <optional>
#include <thread>
#include <vector>

#include "ChildWait.h"
#include "DemoProtocol.h"
#include "ProgressLine.h"
#include "RunReport.h"
#include "SharedBuffer.h"

namespace demo {

namespace {

using Kestrel::ipc::CBRegistry;
using Kestrel::ipc::DefaultReactor;
using Kestrel::ipc::EventHandler;
using Kestrel::ipc::EventType;
using Kestrel::ipc::Message;
using Kestrel::ipc::SocketEventHandler;
using Kestrel::ipc::UnixDomainSocket;
using Kestrel::ipc::utils::FunctionRunnable;
using Kestrel::ipc::utils::LockGuard;
using Kestrel::ipc::utils::Mutex;
using Kestrel::ipc::utils::Process;
using Kestrel::ipc::utils::Thread;
using Kestrel::ipc::utils::UniqueLock;
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

// Statuses of the replies that arrived, filled by CBRegistry callbacks on the
// reactor thread and waited for by the sending thread. The reactor's hang-up
// listener marks the peer gone, which ends every wait at once.
class ReplyBook {
  public:
    enum class Outcome { kArrived, kPeerGone, kTimedOut };

    void complete(uint32_t id, uint8_t status) {
        {
            LockGuard lock(mLock);
            mStatuses[id] = status;
        }
        mChanged.notify_all();
    }

    void peerGone() {
        {
            LockGuard lock(mLock);
            mPeerGone = true;
        }
        mChanged.notify_all();
    }

    // Waits for the reply to `id`, the peer's hang-up, or the time-out; a reply
    // that arrived before the hang-up still counts.
    Outcome waitFor(uint32_t id, uint8_t* status) {
        UniqueLock lock(mLock);
        // Ends with the reply, the hang-up or the time-out: all three are
        // told apart below.
        (void)lock.waitFor(mChanged, kReplyTimeout, [&]() IPC_REQUIRES(mLock) {
            return mStatuses.count(id) != 0 || mPeerGone;
        });
        const auto found = mStatuses.find(id);
        if (found == mStatuses.end()) {
            return mPeerGone ? Outcome::kPeerGone : Outcome::kTimedOut;
        }
        *status = found->second;
        mStatuses.erase(found);
        return Outcome::kArrived;
    }

  private:
    Mutex mLock;
    std::condition_variable mChanged;
    std::map<uint32_t, uint8_t> mStatuses IPC_GUARDED_BY(mLock);
    bool mPeerGone IPC_GUARDED_BY(mLock) = false;
};

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

        CBRegistry registry(1);
        ReplyBook replies;
        auto socket = std::make_shared<SocketEventHandler>(std::move(pair.first), EventType::READ);
        socket->setRunnable(std::make_shared<FunctionRunnable>([socket = socket.get(), &registry] {
            auto reply = std::make_unique<Message>();
            if (socket->receiveMessage(reply.get()) == 0 && reply->isReply()) {
                registry.unRegisterCB(std::move(reply));
            }
        }));
        DefaultReactor reactor;
        // The algorithm process is gone (its end of the socket closed): stop
        // polling the socket, end the loop, and wake the sender. Without this
        // the loop would report the hang-up on every cycle and the sender would
        // wait out the reply time-out.
        reactor.setHangUpListener(
                [&reactor, &replies](int fd, short, std::shared_ptr<EventHandler>) {
                    (void)reactor.removeEventHandlerByFd(fd);
                    reactor.requestExit();
                    replies.peerGone();
                });
        Thread reactorThread(
                new FunctionRunnable([&reactor] { reactor.loop(std::chrono::milliseconds(0)); }),
                true);
        reactorThread.start();
        (void)reactor.registerEventHandler(socket);

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

            registry.registerCB(request,
                                [&replies, id](uint8_t status) { replies.complete(id, status); });
            const auto sent = Clock::now();
            ++report.requests;
            report.buffersExpected += buffers.size();
            if (socket->sendMessage(request) != 0) {
                report.lostRequests.push_back(id);  // the peer is gone already
                break;
            }
            report.descriptorsPassed += payload.fds.size();
            uint8_t status = kStatusFailed;
            const ReplyBook::Outcome outcome = replies.waitFor(id, &status);
            if (outcome != ReplyBook::Outcome::kArrived) {
                report.lostRequests.push_back(id);
                if (outcome == ReplyBook::Outcome::kPeerGone) {
                    report.hangUpNoticedAfterMs = millisecondsSince(sent);
                }
                break;
            }
            report.addRoundTrip(Clock::now() - sent);
            ++report.answered;
            report.failedStatuses += status == kStatusOk ? 0 : 1;
            for (const SharedBuffer& buffer : buffers) {
                report.buffersVerified += buffer.holdsReversedPattern() ? 1 : 0;
            }
            progress.update(id);
        }
        progress.finish();
        report.setElapsed(Clock::now() - start);
        report.neverSent = mOptions.requests - report.requests;

        // Stop listening before the algorithm process goes, so that its hang-up
        // is not reported by a loop that no longer needs the socket.
        reactor.requestExit();
        reactorThread.wait();
        if (!report.algorithmKilled) {
            (void)child.terminate();  // a dead child is reaped all the same
        }
        report.algorithmStatus = waitForChild(child.pid(), std::chrono::seconds(5));
        self.removeFromObservation(child.pid());
        printStatistics("camera", reactor, nullptr, &registry, socket->fd());
        finishObservation(mOptions.observation);
    }
    report.leakedDescriptors = countOpenDescriptors() - descriptorsBefore;
    report.print();
    return report.success() ? 0 : 1;
}

}  // namespace demo
