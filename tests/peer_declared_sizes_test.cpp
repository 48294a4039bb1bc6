// What a peer's header can make the receiver do: recv(Message*) sizes the
// payload from the header's two counts before the payload record is read, so
// a hostile header decides the allocation. These cases pin down what happens:
// the data count is allocated in full whatever arrives, and where the memory
// is not there std::bad_alloc leaves the receive; a descriptor count beyond
// what the kernel passes in one record is served in part at best, with
// nothing left open.
#include <errno.h>
#include <gtest/gtest.h>
#include <ipc/Message.h>
#include <ipc/UnixDomainSocket.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <limits>
#include <new>
#include <optional>
#include <vector>

#include "support/Descriptors.h"
#include "support/LogCapture.h"
#include "support/RawPeer.h"
#include "support/Waiting.h"

namespace {

using Kestrel::ipc::Message;
using Kestrel::ipc::SocketPair;
using Kestrel::ipc::UnixDomainSocket;
using Kestrel::utils::sys::FileDescriptor;
using velacam::test::LogCapture;
using velacam::test::memoryFile;
using velacam::test::Watchdog;
using velacam::test::writeRecord;
using namespace std::chrono_literals;

constexpr uint32_t kMaxDataCount = std::numeric_limits<uint32_t>::max();
constexpr uint16_t kMaxDescriptorCount = std::numeric_limits<uint16_t>::max();

// Exit codes of the child that receives under an address-space limit.
enum LimitedReceive : int {
    kThrewBadAlloc = 0,
    kCannotLimit = 10,
    kLimitNotApplied = 11,
    kReceivedAnyway = 12,
    kHeaderNotKept = 13,
    kPayloadRecordGone = 14,
};

// The sanitizers' allocators report an allocation they cannot serve and end
// the process, instead of throwing std::bad_alloc as the C++ library does.
bool underSanitizer() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
    return true;
#else
    return false;
#endif
#else
    return false;
#endif
}

// The calling process's address-space size in bytes.
size_t addressSpaceInUse() {
    size_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    return pages * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

// Limits the calling process's address space to what it uses plus 1 GiB.
// False when it cannot, or when the limit is not applied (qemu-user keeps it
// from the program it runs).
LimitedReceive limitAddressSpace() {
    constexpr size_t kHeadroom = size_t{1} << 30;
    const rlimit limit{addressSpaceInUse() + kHeadroom, RLIM_INFINITY};
    if (setrlimit(RLIMIT_AS, &limit) != 0) {
        return kCannotLimit;
    }
    void* probe = mmap(nullptr, 2 * kHeadroom, PROT_NONE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (probe != MAP_FAILED) {
        munmap(probe, 2 * kHeadroom);
        return kLimitNotApplied;
    }
    return kThrewBadAlloc;
}

class PeerDeclaredSizesTest : public ::testing::Test {
  protected:
    void SetUp() override {
        SocketPair pair = UnixDomainSocket::createPairedSocket(65536, 65536, false);
        ASSERT_GE(pair.first.get(), 0);
        rawReceiver = pair.first.get();
        socket.bind(std::move(pair.first));
        peer = std::move(pair.second);
        file = memoryFile("payload");
        leaks.emplace();
    }
    void TearDown() override { leaks->check(); }

    // The peer's header record announcing `dataCount` bytes and
    // `descriptorCount` descriptors.
    void announce(uint32_t dataCount, uint16_t descriptorCount) {
        Message announced;
        announced.setHeader(9, 1, 0, dataCount, descriptorCount);
        const auto [bytes, size] = announced.header();
        ASSERT_EQ(writeRecord(peer.get(), bytes, size, {}), static_cast<ssize_t>(size));
    }

    LogCapture capture;
    Watchdog watchdog{"receive with hostile counts", 60s};
    UnixDomainSocket socket;
    int rawReceiver = -1;
    FileDescriptor peer;
    FileDescriptor file;
    std::optional<velacam::test::DescriptorLeakCheck> leaks;
};

TEST_F(PeerDeclaredSizesTest, DeclaredDataCount_IsAllocatedInFullWhateverArrives) {
    constexpr uint32_t kDeclared = 64u << 20;
    announce(kDeclared, 0);
    ASSERT_EQ(writeRecord(peer.get(), "abc", 3, {}), 3);

    Message received;
    ASSERT_EQ(socket.recv(&received), 0);
    // The message holds the 64 MiB the header asked for: the three bytes that
    // came, then zeros. The packed payload lies right behind the header.
    EXPECT_EQ(received.dataCount(), kDeclared);
    const uint8_t* payload = received.header().first + Message::kHeaderSize;
    EXPECT_EQ(std::memcmp(payload, "abc", 3), 0);
    EXPECT_EQ(payload[3], 0);
    EXPECT_EQ(payload[kDeclared - 1], 0);
}

TEST_F(PeerDeclaredSizesTest, LargestDataCountWithoutTheMemory_ThrowsBadAllocAndBreaksThePairing) {
    if (underSanitizer()) {
        GTEST_SKIP() << "the sanitizer's allocator ends the process instead of throwing";
    }
    announce(kMaxDataCount, 0);
    ASSERT_EQ(writeRecord(peer.get(), "abc", 3, {}), 3);

    // In a child limited to 1 GiB more than it uses, the 4 GiB cannot be had.
    const pid_t child = velacam::test::forkPeer([this] {
        const LimitedReceive limited = limitAddressSpace();
        if (limited != kThrewBadAlloc) {
            return static_cast<int>(limited);
        }
        Message received;
        try {
            (void)socket.recv(&received);
            return static_cast<int>(kReceivedAnyway);
        } catch (const std::bad_alloc&) {
        }
        if (received.dataCount() != kMaxDataCount) {
            return static_cast<int>(kHeaderNotKept);
        }
        // The payload record is still queued: the next receive would take it
        // for a header.
        const velacam::test::RawRecord next =
                velacam::test::readRecord(rawReceiver, 64, 0, MSG_DONTWAIT);
        return static_cast<int>(next.result == 3 ? kThrewBadAlloc : kPayloadRecordGone);
    });
    const int result = velacam::test::waitPeer(child, 60);
    if (result == kLimitNotApplied) {
        GTEST_SKIP() << "the address-space limit is not applied here (qemu-user keeps it)";
    }
    EXPECT_EQ(result, kThrewBadAlloc);
}

TEST_F(PeerDeclaredSizesTest, MoreDescriptorsThanTheKernelPassesInOneRecord_ArriveInPartAtBest) {
    // The kernel refuses a record carrying more than 253 descriptors, so of a
    // header announcing more, 253 arrive at best; the other slots hold -1.
    const std::vector<int> most(253, file.get());
    const std::vector<int> tooMany(254, file.get());
    EXPECT_EQ(writeRecord(peer.get(), "x", 1, tooMany), -1);
    EXPECT_EQ(errno, EINVAL);

    for (const uint16_t announced : {uint16_t{254}, kMaxDescriptorCount}) {
        announce(1, announced);
        ASSERT_EQ(writeRecord(peer.get(), "x", 1, most), 1);
        Message received;
        ASSERT_EQ(socket.recv(&received), 0);
        const Message::Payload payload = received.payload();
        ASSERT_EQ(payload.fds.size(), announced);
        for (size_t i = 0; i < payload.fds.size(); ++i) {
            if (i < most.size()) {
                EXPECT_TRUE(velacam::test::sameFile(payload.fds[i], file.get())) << i;
                close(payload.fds[i]);
            } else {
                ASSERT_EQ(payload.fds[i], -1) << i;
            }
        }
    }
    EXPECT_EQ(capture.count("The number of received fds(253) is less than expected(254)"), 1u);
    EXPECT_EQ(capture.count("The number of received fds(253) is less than expected(65535)"), 1u);
}

}  // namespace
