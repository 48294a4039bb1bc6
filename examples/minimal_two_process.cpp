// The smallest complete exchange between two processes: one message with a
// descriptor each way.
//
// The parent makes a socket pair and forks. Each process serves its end with
// a DefaultReactor on a Thread until one message arrives; the
// SocketEventHandler's runnable receives it and hands it to the process's main
// thread. The parent sends "ping" with a memfd holding "camera"; the child
// checks both, answers "pong" with a memfd holding "algorithm", waits for the
// parent to close its end, and exits 0; the parent checks the answer and the
// child's exit status. Every wait is bounded. Exit status 0 on success.
//
// Each side stops its reactor before the other closes its end: a reactor that
// sees the peer hang up logs it as an error.
#include <ipc/DefaultReactor.h>
#include <ipc/Message.h>
#include <ipc/SocketEventHandler.h>
#include <ipc/SocketPair.h>
#include <ipc/UnixDomainSocket.h>
#include <ipc/utils/FunctionRunnable.h>
#include <ipc/utils/Thread.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <future>
#include <memory>
#include <string>
#include <utility>

using namespace Kestrel::ipc;
using Kestrel::ipc::utils::FunctionRunnable;
using Kestrel::ipc::utils::Thread;
using Kestrel::utils::sys::FileDescriptor;

namespace {

constexpr auto kWait = std::chrono::seconds(5);
constexpr unsigned kWatchdogSeconds = 20;  // ends a process that hangs anyway

// A memfd holding `text`.
FileDescriptor sharedText(const std::string& text) {
    FileDescriptor fd(memfd_create("minimal-example", MFD_CLOEXEC), 0);
    if (fd.get() >= 0 && write(fd.get(), text.data(), text.size()) != ssize_t(text.size())) {
        return FileDescriptor();
    }
    return fd;
}

std::string readText(int fd) {
    char buffer[64];
    const ssize_t n = pread(fd, buffer, sizeof(buffer), 0);
    return n > 0 ? std::string(buffer, size_t(n)) : std::string();
}

// One process's end of the pair, served by a reactor thread; the first message
// that arrives is handed to whoever waits in receive().
class Endpoint {
  public:
    explicit Endpoint(FileDescriptor end)
        : mSocket(std::make_shared<SocketEventHandler>(std::move(end), EventType::READ)),
          mReactorThread(
                  new FunctionRunnable([this] { mReactor.loop(std::chrono::milliseconds(0)); }),
                  true) {
        mSocket->setRunnable(std::make_shared<FunctionRunnable>([this] {
            auto message = std::make_unique<Message>();
            if (mSocket->receiveMessage(message.get()) == 0 && !mDelivered) {
                mDelivered = true;
                mArrived.set_value(std::move(message));
            }
        }));
        mReactorThread.start();
        (void)mReactor.registerEventHandler(mSocket);
    }

    ~Endpoint() { stopServing(); }

    // Sends `word` as the data with one descriptor holding `text`.
    bool send(uint32_t flags, const std::string& word, const std::string& text) {
        FileDescriptor attached = sharedText(text);
        Message message;
        message.setHeader(/*id*/ 1, /*type*/ 1, flags, 0, 0);
        Message::Payload payload;
        payload.data.assign(word.begin(), word.end());
        payload.fds = {attached.get()};
        message.setPayload(payload);
        return attached.get() >= 0 && mSocket->sendMessage(message) == 0;
    }

    // True when a message arrives in time with `word` as its data and one
    // descriptor holding `text`; the descriptor is closed either way.
    bool receive(const std::string& word, const std::string& text) {
        std::future<std::unique_ptr<Message>> arrived = mArrived.get_future();
        const bool inTime = arrived.wait_for(kWait) == std::future_status::ready;
        stopServing();
        if (!inTime) {
            std::fprintf(stderr, "[%d] no message within 5 s\n", getpid());
            return false;
        }
        const Message::Payload payload = arrived.get()->payload();
        bool ok = payload.fds.size() == 1;
        for (int fd : payload.fds) {
            const FileDescriptor owned(fd, 0);  // received descriptors are ours to close
            ok = ok && readText(fd) == text;
        }
        ok = ok && std::string(payload.data.begin(), payload.data.end()) == word;
        if (!ok) {
            std::fprintf(stderr, "[%d] unexpected message\n", getpid());
        }
        return ok;
    }

    // True when the peer closes its end in time. Call after receive().
    bool waitForPeerToClose() const {
        pollfd end{mSocket->fd(), POLLIN, 0};
        const int waitMs = static_cast<int>(std::chrono::milliseconds(kWait).count());
        return poll(&end, 1, waitMs) == 1 && (end.revents & POLLHUP) != 0;
    }

  private:
    void stopServing() {
        if (!mStopped) {
            mStopped = true;
            mReactor.requestExit();
            mReactorThread.wait();
        }
    }

    std::shared_ptr<SocketEventHandler> mSocket;
    DefaultReactor mReactor;
    Thread mReactorThread;
    std::promise<std::unique_ptr<Message>> mArrived;
    bool mDelivered = false;  // reactor thread only
    bool mStopped = false;    // main thread only
};

int runChild(FileDescriptor end) {
    Endpoint endpoint(std::move(end));
    const bool ok = endpoint.receive("ping", "camera") &&
                    endpoint.send(Message::kFlagReply, "pong", "algorithm") &&
                    endpoint.waitForPeerToClose();
    return ok ? 0 : 1;
}

}  // namespace

int main() {
    alarm(kWatchdogSeconds);
    SocketPair pair = UnixDomainSocket::createPairedSocket(65536, 65536, false);
    if (pair.first.get() < 0) {
        std::fprintf(stderr, "cannot make the socket pair\n");
        return 1;
    }
    const pid_t child = fork();
    if (child < 0) {
        std::perror("fork");
        return 1;
    }
    if (child == 0) {
        pair.first = FileDescriptor();
        _exit(runChild(std::move(pair.second)));
    }
    pair.second = FileDescriptor();

    bool answered = false;
    {
        Endpoint endpoint(std::move(pair.first));
        answered = endpoint.send(0, "ping", "camera") && endpoint.receive("pong", "algorithm");
    }
    int status = 0;
    if (!answered) {
        kill(child, SIGKILL);
    }
    const bool childOk =
            waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    std::printf("minimal two-process exchange: %s\n", answered && childOk ? "ok" : "FAILED");
    return answered && childOk ? 0 : 1;
}
