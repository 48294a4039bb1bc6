// What a receive may cost and hand over, whatever the peer sends: the buffers
// offered to the kernel, the memory a receiving thread keeps, records longer
// or shorter than announced, a receive during the thread's teardown, and
// close-on-exec on every descriptor received.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <ipc/Message.h>
#include <ipc/UnixDomainSocket.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "support/Messages.h"
#include "support/ProcessStatus.h"
#include "support/SocketPairFixture.h"
#include "support/interpose/ReceiveCalls.h"

namespace {

using namespace Kestrel::ipc;
using namespace velacam::test;
using Bytes = std::vector<uint8_t>;

constexpr size_t kMost = UnixDomainSocket::kMaxInlineData;

// AddressSanitizer keeps freed memory (its quarantine) and stack frames (its
// fake stacks) resident: there the resident size says nothing of the library.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kUnderAddressSanitizer = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kUnderAddressSanitizer = true;
#else
constexpr bool kUnderAddressSanitizer = false;
#endif
#else
constexpr bool kUnderAddressSanitizer = false;
#endif

Bytes patterned(size_t size, uint8_t seed) {
    Bytes bytes(size);
    for (size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<uint8_t>(i * 13 + seed);
    }
    return bytes;
}

// Runs `body` on a new thread and returns its result: a thread that has not
// received yet.
template <typename Body>
auto onFreshThread(Body body) {
    auto result = std::async(std::launch::async, body);
    EXPECT_EQ(result.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    return result.get();
}

class ReceiveBoundsTest : public SocketPairFixture {
  protected:
    ReceiveBoundsTest() { receiver.bind(std::move(pair.first)); }

    // Queues a message of `data` (announcing `announced` bytes) on the peer's end.
    void sendRaw(uint32_t id, uint32_t announced, const Bytes& data,
                 const std::vector<int>& fds = {}) {
        ASSERT_TRUE(
                writeHeaderRecord(peer.get(), id, announced, static_cast<uint16_t>(fds.size())));
        ASSERT_EQ(writeRecord(peer.get(), data.data(), data.size(), fds),
                  static_cast<ssize_t>(data.size()));
    }
    // Receives message `id` and checks that it carries `data`.
    void expectMessage(uint32_t id, const Bytes& data) {
        Message message;
        ASSERT_EQ(receiver.recv(&message), 0);
        EXPECT_EQ(message.id(), id);
        EXPECT_EQ(message.payload().data, data);
    }

    UnixDomainSocket receiver;
    FileDescriptor& peer = pair.second;
};

// A 32-bit process's kernel fails a vector longer than 2 GiB (and thereby the
// message's payload record) where a 64-bit one takes it: so no receive offers
// more than it has memory for, whichever way it reads a message.
TEST_F(ReceiveBoundsTest, NoReceiveOffersTheKernelMoreThanTheInlineMaximum) {
    std::atomic<int> oneCallReceives{0};
    std::atomic<int> oversized{0};
    ScopedReceiveObserver observer(
            [&](ReceiveCall call, const msghdr* const* records, size_t count, int) {
                for (size_t i = 0; i < count; ++i) {
                    if (offeredBytes(*records[i]) > kMost) {
                        ++oversized;
                    }
                }
                if (call == ReceiveCall::kRecvmmsg) {
                    ++oneCallReceives;
                    if (count != 2 || offeredBytes(*records[0]) != Message::kHeaderSize) {
                        ++oversized;
                    }
                }
            });
    for (const auto timeout : {std::chrono::milliseconds(1000), std::chrono::milliseconds(0)}) {
        SCOPED_TRACE("payload time-out " + std::to_string(timeout.count()) + " ms");
        receiver.setPayloadTimeout(timeout);
        uint32_t id = 0;
        for (const size_t size : {size_t{0}, size_t{64}, size_t{5000}, kMost, size_t{100}}) {
            sendRaw(++id, static_cast<uint32_t>(size), patterned(size, 1));
            expectMessage(id, patterned(size, 1));
        }
        // Lying headers and over-long records cost refusals, never a larger offer.
        sendRaw(++id, 1u << 30, patterned(3, 2));
        Message refused;
        EXPECT_EQ(receiver.recv(&refused), -EMSGSIZE);
        sendRaw(++id, 3, patterned(kMost + 1, 3));
        EXPECT_EQ(receiver.recv(&refused), -EMSGSIZE);
        sendRaw(++id, 7, patterned(7, 4));
        expectMessage(id, patterned(7, 4));
    }
    EXPECT_EQ(oversized.load(), 0);
    EXPECT_GT(oneCallReceives.load(), 0);
}

// The one-call receive's buffer is what a thread reserves: the inline maximum,
// not a share of the address space that a later mapping may need.
TEST_F(ReceiveBoundsTest, AReceivingThreadReservesNoMoreThanTheInlineMaximum) {
    sendRaw(1, 64, patterned(64, 1));
    sendRaw(2, 60000, patterned(60000, 2));  // past its room: through the buffer
    const long grownKiB = onFreshThread([this] {
        Message warm;  // the thread's first allocation sets up its heap
        const long before = statusKiB("VmSize");
        for (uint32_t id : {1u, 2u}) {
            Message message;
            if (receiver.recv(&message) != 0 || message.id() != id) {
                return -1L;
            }
        }
        return statusKiB("VmSize") - before;
    });
    EXPECT_GE(grownKiB, 0);
    EXPECT_LE(grownKiB, 1024) << "KiB of address space taken by one receiving thread";
}

// Where the buffer cannot be had, every message is read a record at a time,
// and arrives all the same.
TEST_F(ReceiveBoundsTest, WithoutAddressSpaceForTheBuffer_MessagesArriveARecordAtATime) {
    if (underEmulation()) {
        GTEST_SKIP() << "qemu-user's address-space limit is the emulator's own";
    }
    sendRaw(1, 64, patterned(64, 1));
    sendRaw(2, 200, patterned(200, 2), {file.get()});
    // Forked from a fresh thread: the child's only thread has not received
    // yet, and needs no new thread of its own.
    const int status = onFreshThread([this] {
        const pid_t child = forkPeer([this] {
            std::atomic<int> oneCall{0};
            ScopedReceiveObserver observer([&](ReceiveCall call, const msghdr* const*, size_t,
                                               int) { oneCall += call == ReceiveCall::kRecvmmsg; });
            Message first;  // fresh messages receive in their own reserved room
            Message second;
            const rlim_t now = static_cast<rlim_t>(statusKiB("VmSize")) * 1024;
            const rlimit limit{now, now};
            if (setrlimit(RLIMIT_AS, &limit) != 0 ||
                mmap(nullptr, kMost, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0) !=
                        MAP_FAILED) {
                return 1;  // no limit to test under
            }
            if (receiver.recv(&first) != 0 || first.payload().data != patterned(64, 1)) {
                return 2;
            }
            if (receiver.recv(&second) != 0 || second.payload().data != patterned(200, 2) ||
                !sameFile(second.payload().fds.at(0), file.get())) {
                return 3;
            }
            return oneCall.load() == 0 ? 0 : 4;
        });
        return waitPeer(child);
    });
    EXPECT_EQ(status, 0) << "1: no limit, 2 and 3: a message lost, 4: the buffer was used";
}

// Receives a message of 50000 patterned bytes: 0, or what went wrong.
int receivePatterned(UnixDomainSocket& socket) {
    Message message;
    const int received = socket.recv(&message);
    if (received != 0) {
        return received;
    }
    return message.payload().data == patterned(50000, 9) ? 0 : 1;
}

// Receives on the destruction of a thread_local copy.
struct TeardownReceiver {
    UnixDomainSocket* socket = nullptr;
    std::promise<int>* result = nullptr;

    ~TeardownReceiver() {
        if (socket != nullptr) {
            result->set_value(receivePatterned(*socket));
        }
    }
};

thread_local TeardownReceiver tReceiverAfterTheBuffer;

// A receive from a thread_local destroyed after the library's per-thread
// state, from a thread-exit destructor that runs after the library's, and
// from an exit handler, each with a payload that does not fit its message's
// room: none may write into memory the thread no longer has.
TEST_F(ReceiveBoundsTest, ReceivesDuringTeardown_StillTakeWholeMessages) {
    std::promise<int> fromThreadLocal;
    sendRaw(1, 8, patterned(8, 1));
    sendRaw(2, 50000, patterned(50000, 9));
    std::thread([&] {
        tReceiverAfterTheBuffer.socket = &receiver;  // constructed before the first receive
        tReceiverAfterTheBuffer.result = &fromThreadLocal;
        Message first;
        EXPECT_EQ(receiver.recv(&first), 0);
    }).join();
    EXPECT_EQ(fromThreadLocal.get_future().get(), 0);

    static std::promise<int>* fromKey = nullptr;
    static UnixDomainSocket* keySocket = nullptr;
    std::promise<int> keyResult;
    fromKey = &keyResult;
    keySocket = &receiver;
    sendRaw(3, 8, patterned(8, 1));
    sendRaw(4, 50000, patterned(50000, 9));
    std::thread([&] {
        Message first;
        EXPECT_EQ(receiver.recv(&first), 0);
        // Created after the library's key: its destructor runs after the library's.
        pthread_key_t key;
        ASSERT_EQ(pthread_key_create(
                          &key, [](void*) { fromKey->set_value(receivePatterned(*keySocket)); }),
                  0);
        pthread_setspecific(key, &key);
    }).join();
    EXPECT_EQ(keyResult.get_future().get(), 0);

    // A static destructor or exit handler: after the thread_local destructors
    // of the thread that calls exit().
    const pid_t child = forkPeer([this] {
        Message first;
        if (receiver.recv(&first) != 0) {
            return 1;
        }
        static UnixDomainSocket* exitSocket = &receiver;
        std::atexit([] { _exit(receivePatterned(*exitSocket) == 0 ? 0 : 2); });
        std::exit(3);
    });
    sendRaw(5, 8, patterned(8, 1));
    sendRaw(6, 50000, patterned(50000, 9));
    EXPECT_EQ(waitPeer(child), 0);
}

// Longer than the inline maximum, or shorter than announced: refused with the
// descriptors closed (the fixture checks), the stream still in step, on both
// ways of reading a message.
TEST_F(ReceiveBoundsTest, RecordsLongerThanTheMaximumOrShorterThanAnnounced_AreRefused) {
    struct Case {
        const char* what;
        uint32_t announced;
        size_t sent;
        int result;
    };
    const Case cases[] = {
            {"a header announcing more than the maximum", kMost + 1, 3, -EMSGSIZE},
            {"a record longer than the maximum", 10, kMost + 1, -EMSGSIZE},
            {"a record shorter than announced", 100, 50, -EBADMSG},
            {"an empty record from a peer still there", kMost, 0, -EBADMSG},
    };
    for (const auto timeout : {std::chrono::milliseconds(1000), std::chrono::milliseconds(0)}) {
        receiver.setPayloadTimeout(timeout);
        for (const Case& c : cases) {
            SCOPED_TRACE(std::string(c.what) + ", payload time-out " +
                         std::to_string(timeout.count()) + " ms");
            sendRaw(1, c.announced, patterned(c.sent, 5), {file.get(), file.get()});
            Message message;
            EXPECT_EQ(receiver.recv(&message), c.result);
            EXPECT_EQ(message.dataCount(), c.announced);
            EXPECT_EQ(message.payload().data, Bytes());
            sendRaw(2, 4, patterned(4, 6));
            expectMessage(2, patterned(4, 6));
        }
    }
}

// What a receive keeps of a peer's records: little beyond the thread's
// buffer, however large the records or the announcements. Measured in a child
// so that nothing else moves its resident size.
TEST_F(ReceiveBoundsTest, ResidentMemory_StaysNearWhatWellFormedMessagesHold) {
    const int status = onFreshThread([this] {
        const pid_t child = forkPeer([this] {
            const int large = 2 * 1024 * 1024;
            if (setsockopt(peer.get(), SOL_SOCKET, SO_SNDBUF, &large, sizeof(large)) != 0) {
                return 1;
            }
            const Bytes bytes(2 << 20, 1);  // resident before the measurements
            const auto roundTrip = [&](uint32_t announced, size_t sent, Message& message) {
                return writeHeaderRecord(peer.get(), 1, announced, 0) &&
                                       writeRecord(peer.get(), bytes.data(), sent, {}) ==
                                               static_cast<ssize_t>(sent)
                               ? receiver.recv(&message)
                               : 1;
            };
            {
                Message warm;
                if (roundTrip(64, 64, warm) != 0) {
                    return 1;
                }
            }
            const long start = statusKiB("VmRSS");
            for (int i = 0; i < 3; ++i) {  // through the buffer, then dropped
                Message small;
                Message spilled;  // its room is sized from the small one
                if (roundTrip(64, 64, small) != 0 || roundTrip(60000, 60000, spilled) != 0) {
                    return 2;
                }
            }
            const long afterSpills = statusKiB("VmRSS");
            for (const uint32_t announced : {10u, 4u << 20}) {  // 2 MiB sent: cut, refused
                Message refused;
                if (roundTrip(announced, 2 << 20, refused) != -EMSGSIZE) {
                    return 3;
                }
            }
            Message small;  // the room for the next one is small again
            if (roundTrip(64, 64, small) != 0) {
                return 3;
            }
            const long afterRefusals = statusKiB("VmRSS");
            std::vector<Message> queued(64);  // kept, as a queue keeps them
            for (size_t i = 0; i < queued.size(); ++i) {
                if (roundTrip(i % 2 == 0 ? kMost : 1u << 20, 0, queued[i]) >= 0) {
                    return 4;
                }
            }
            const long afterLies = statusKiB("VmRSS");
            std::fprintf(stderr, "resident KiB: %ld, +%ld spills, +%ld refusals, +%ld lies\n",
                         start, afterSpills - start, afterRefusals - afterSpills,
                         afterLies - afterRefusals);
            if (kUnderAddressSanitizer) {
                return 0;
            }
            if (afterSpills - start > 1024) {
                return 5;
            }
            if (afterRefusals - afterSpills > 1024) {
                return 6;
            }
            return afterLies - afterRefusals > 1024 ? 7 : 0;
        });
        return waitPeer(child);
    });
    EXPECT_EQ(status, 0) << "5, 6, 7: more than 1 MiB kept after spills, refusals, lying headers";
}

// Another thread forks and executes a program listing its descriptors while
// messages with descriptors arrive: none may be among what the program sees.
TEST_F(ReceiveBoundsTest, ReceivedDescriptors_NeverReachAProgramExecutedMeanwhile) {
    const FileDescriptor probe(memfd_create("velacam-cloexec-probe", MFD_CLOEXEC), 0);
    ASSERT_GE(probe.get(), 0);
    constexpr int kMessages = 60;
    std::atomic<bool> received{false};
    // Lists /proc/self/fd of a new program; its output.
    const auto listing = [] {
        int out[2];
        if (pipe2(out, O_CLOEXEC) != 0) {
            return std::string("pipe failed");
        }
        const pid_t child = fork();
        if (child == 0) {
            dup2(out[1], STDOUT_FILENO);
            execl("/bin/ls", "ls", "-l", "/proc/self/fd", static_cast<char*>(nullptr));
            _exit(127);
        }
        close(out[1]);
        std::string text;
        char chunk[4096];
        ssize_t got;
        while ((got = read(out[0], chunk, sizeof(chunk))) > 0) {
            text.append(chunk, static_cast<size_t>(got));
        }
        close(out[0]);
        return waitPeer(child) == 0 ? text : "ls failed: " + text;
    };
    auto lister = std::async(std::launch::async, [&] {
        std::string seen;
        do {
            seen += listing();
        } while (!received.load());
        return seen + listing();  // once more with every received descriptor open
    });
    std::vector<int> taken;
    for (int i = 0; i < kMessages; ++i) {
        ASSERT_EQ(writeRecord(peer.get(), "p", 1, {probe.get()}), 1);  // a bare record
        int fd = -1;
        char data = 0;
        ASSERT_EQ(receiver.receiveDataAndFileDescriptors(&fd, 1, &data, 1), 0);
        taken.push_back(fd);
        receiver.setPayloadTimeout(std::chrono::milliseconds(i % 2 == 0 ? 1000 : 0));
        sendRaw(static_cast<uint32_t>(i), 1, {'m'}, {probe.get(), probe.get()});
        Message message;
        ASSERT_EQ(receiver.recv(&message), 0);
        for (int received : message.payload().fds) {
            taken.push_back(received);
        }
    }
    received.store(true);
    ASSERT_EQ(lister.wait_for(std::chrono::seconds(60)), std::future_status::ready);
    const std::string seen = lister.get();
    for (int fd : taken) {
        close(fd);
    }
    EXPECT_EQ(seen.find("ls failed"), std::string::npos) << seen;
    EXPECT_EQ(seen.find("velacam-cloexec-probe"), std::string::npos) << seen;
}

}  // namespace
