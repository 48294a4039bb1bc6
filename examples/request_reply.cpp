// A request and its reply between two processes, and a peer that dies.
//
// The parent makes a socket pair and forks. The child answers each request
// with the request's text reversed, and ends abruptly (_exit) at the third.
// The parent's first two calls get their replies; the third fails at once
// with RequestChannel::kPeerGone, not after its 5-second time-out.
#include <ipc/RequestChannel.h>
#include <ipc/UnixDomainSocket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>

using namespace Kestrel::ipc;

static std::string textOf(const Message& message) {
    const Message::Payload payload = message.payload();
    return std::string(payload.data.begin(), payload.data.end());
}

static void setText(Message& message, const std::string& text) {
    Message::Payload payload;
    payload.data.assign(text.begin(), text.end());
    message.setPayload(payload);
}

int main() {
    alarm(20);  // a watchdog: ends either process if it hangs anyway
    SocketPair pair = UnixDomainSocket::createPairedSocket(65536, 65536, false);
    if (fork() == 0) {
        pair.first = {};
        RequestChannel server(std::move(pair.second),
                              [](RequestChannel& channel, std::unique_ptr<Message> request) {
                                  const std::string text = textOf(*request);
                                  if (text == "third") {
                                      _exit(0);  // dies with a request unanswered
                                  }
                                  Message reply;
                                  setText(reply, std::string(text.rbegin(), text.rend()));
                                  (void)channel.answer(*request, reply);
                              });
        pause();
    }
    pair.second = {};
    RequestChannel client(std::move(pair.first));
    const std::string texts[] = {"first", "second", "third"};
    const std::string expected[] = {"tsrif", "dnoces", ""};
    bool ok = true;
    for (int i = 0; i < 3; ++i) {
        Message request;
        setText(request, texts[i]);
        std::unique_ptr<Message> reply;
        const int result = client.call(request, std::chrono::seconds(5), &reply);
        const std::string answer = result == 0 ? textOf(*reply) : "";
        std::printf("call %d: result %d, reply \"%s\"\n", i + 1, result, answer.c_str());
        ok = ok && answer == expected[i] &&
             (i < 2 ? result == 0 : result == RequestChannel::kPeerGone);
    }
    wait(nullptr);
    std::printf("request/reply with a peer that dies: %s\n", ok ? "ok" : "FAILED");
    return ok ? 0 : 1;
}
