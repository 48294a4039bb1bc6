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

#include <cstring>
#include <fstream>
#include <limits>
#include <new>
#include <vector>

#include "support/SocketPairFixture.h"
#include "support/Waiting.h"

// The sanitizers' allocators report an allocation they cannot serve and end
// the process, instead of throwing std::bad_alloc as the C++ library does.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define VELACAM_SANITIZED_ALLOCATOR 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define VELACAM_SANITIZED_ALLOCATOR 1
#endif
#endif

namespace {

using namespace Kestrel::ipc;
using namespace velacam::test;

constexpr uint32_t kMaxDataCount = std::numeric_limits<uint32_t>::max();

// Exit codes of the child that receives under an address-space limit.
enum LimitedReceive : int {
    kThrewBadAlloc = 0,
    kCannotLimit = 10,
    kLimitNotApplied = 11,
    kReceivedAnyway = 12,
    kHeaderNotKept = 13,
    kPayloadRecordGone = 14,
};

// Limits the calling process's address space to what it uses plus 1 GiB;
// kLimitNotApplied where the limit does not hold (qemu-user keeps it from the
// program it runs).
LimitedReceive limitAddressSpace() {
    constexpr size_t kHeadroom = size_t{1} << 30;
    size_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    const rlimit limit{pages * static_cast<size_t>(sysconf(_SC_PAGESIZE)) + kHeadroom,
                       RLIM_INFINITY};
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

class PeerDeclaredSizesTest : public SocketPairFixture {
  protected:
    Watchdog watchdog{"receive with hostile counts", std::chrono::seconds(60)};
};

TEST_F(PeerDeclaredSizesTest, DeclaredDataCount_IsAllocatedInFullWhateverArrives) {
    constexpr uint32_t kDeclared = 64u << 20;
    announce(kDeclared, 0);
    ASSERT_EQ(writeRecord(peer.get(), "abc", 3, {}), 3);
    Message received;
    ASSERT_EQ(receiver.recv(&received), 0);
    // The message holds the 64 MiB the header asked for: the three bytes that
    // came, then zeros. The packed payload lies right behind the header.
    EXPECT_EQ(received.dataCount(), kDeclared);
    const uint8_t* payload = received.header().first + Message::kHeaderSize;
    EXPECT_EQ(std::memcmp(payload, "abc", 3), 0);
    EXPECT_EQ(payload[3], 0);
    EXPECT_EQ(payload[kDeclared - 1], 0);
}

TEST_F(PeerDeclaredSizesTest, LargestDataCountWithoutTheMemory_ThrowsBadAllocAndBreaksThePairing) {
#ifdef VELACAM_SANITIZED_ALLOCATOR
    GTEST_SKIP() << "the sanitizer's allocator ends the process instead of throwing";
#endif
    announce(kMaxDataCount, 0);
    ASSERT_EQ(writeRecord(peer.get(), "abc", 3, {}), 3);
    // In a child limited to 1 GiB more than it uses, the 4 GiB cannot be had.
    const pid_t child = forkPeer([this] {
        const LimitedReceive limited = limitAddressSpace();
        if (limited != kThrewBadAlloc) {
            return static_cast<int>(limited);
        }
        Message received;
        try {
            (void)receiver.recv(&received);
            return static_cast<int>(kReceivedAnyway);
        } catch (const std::bad_alloc&) {
        }
        if (received.dataCount() != kMaxDataCount) {
            return static_cast<int>(kHeaderNotKept);
        }
        // The payload record is still queued: the next receive would take it
        // for a header.
        const RawRecord next = readRecord(rawReceiver, 64, 0, MSG_DONTWAIT);
        return static_cast<int>(next.result == 3 ? kThrewBadAlloc : kPayloadRecordGone);
    });
    const int result = waitPeer(child, 60);
    if (result == kLimitNotApplied) {
        GTEST_SKIP() << "the address-space limit is not applied here (qemu-user keeps it)";
    }
    EXPECT_EQ(result, kThrewBadAlloc);
}

TEST_F(PeerDeclaredSizesTest, MoreDescriptorsThanTheKernelPassesInOneRecord_ArriveInPartAtBest) {
    // The kernel refuses a record carrying more than 253 descriptors, so of a
    // header announcing more, 253 arrive at best; the other slots hold -1.
    const std::vector<int> most(253, file.get());
    EXPECT_EQ(writeRecord(peer.get(), "x", 1, std::vector<int>(254, file.get())), -1);
    EXPECT_EQ(errno, EINVAL);

    for (const uint16_t announced : {uint16_t{254}, std::numeric_limits<uint16_t>::max()}) {
        announce(1, announced);
        ASSERT_EQ(writeRecord(peer.get(), "x", 1, most), 1);
        Message received;
        ASSERT_EQ(receiver.recv(&received), 0);
        const Message::Payload payload = received.payload();
        ASSERT_EQ(payload.fds.size(), announced);
        for (size_t i = 0; i < payload.fds.size(); ++i) {
            if (i < most.size()) {
                EXPECT_TRUE(sameFile(payload.fds[i], file.get())) << i;
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
