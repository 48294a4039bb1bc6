// The receive path against a peer that does not follow the wire format: raw
// records carrying too many, too few or no descriptors, or credentials
// instead. Whatever arrives is handed over or closed, the caller's array is
// never overrun, and each refusal has its code and line.
#include <errno.h>
#include <gtest/gtest.h>
#include <ipc/UnixDomainSocket.h>
#include <sys/socket.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/SocketPairFixture.h"

namespace {

using namespace Kestrel::ipc;
using namespace velacam::test;

constexpr int kUntouched = 0x5a5a5a5a;
constexpr int kCanary = 0x7eadbeef;
const char* const kTooMany = "The number of received fds is larger than expected";

// One raw record "ab" carrying `sent` copies of a descriptor (in an SCM_RIGHTS
// message, or in none when !withRights), received expecting `expected`.
struct RecordCase {
    const char* what;
    size_t sent;
    bool withRights;
    size_t expected;
    int result;
    const char* line;  // the error line logged, if any
    bool kernelOnly;
};

class HostilePeerTest : public SocketPairFixture {
  protected:
    void SetUp() override { receiver.bind(std::move(pair.first)); }
    // Receives one record expecting `expected` descriptors into an array with
    // a canary behind it.
    int receive(size_t expected) {
        slots.assign(expected, kUntouched);
        slots.push_back(kCanary);
        data.assign(16, 0);
        return receiver.receiveDataAndFileDescriptors(slots.data(), expected, data.data(),
                                                      data.size());
    }
    // A refusal sets every slot to -1; a success hands `arrived` descriptors
    // over in the first slots (closed here) and leaves the rest alone.
    void expectSlots(int result, size_t arrived) {
        for (size_t i = 0; i + 1 < slots.size(); ++i) {
            if (result != 0) {
                EXPECT_EQ(slots[i], -1) << "slot " << i;
            } else if (i < arrived) {
                const FileDescriptor owned(slots[i], 0);
                EXPECT_TRUE(sameFile(owned.get(), file.get())) << "slot " << i;
            } else {
                EXPECT_EQ(slots[i], kUntouched) << "slot " << i;
            }
        }
        EXPECT_EQ(slots.back(), kCanary) << "written past the caller's array";
    }
    void play(const RecordCase& c) {
        SCOPED_TRACE(c.what);
        capture.clear();
        ASSERT_EQ(writeRecord(far, "ab", 2, copies(c.sent), c.withRights), 2);
        const int result = receive(c.expected);
        EXPECT_EQ(result, c.result);
        expectSlots(result, std::min(c.sent, c.expected));
        EXPECT_EQ(std::string(data.begin(), data.begin() + 2), "ab");
        if (c.line != nullptr) {
            EXPECT_EQ(capture.count(c.line), 1u) << c.line;
            EXPECT_EQ(capture.levelOf(c.line), 1u);
        }
    }
    std::vector<int> copies(size_t count) const { return std::vector<int>(count, file.get()); }

    UnixDomainSocket receiver;
    std::vector<int> slots;
    std::vector<uint8_t> data;
};

// The refusals a caller acts on, each with its code and error line; the fuzz
// targets cover every other record shape. The kernel drops surplus
// descriptors, sets MSG_CTRUNC and adds credentials; qemu-user does not, so
// the cases marked kernelOnly hold on a real kernel only.
TEST_F(HostilePeerTest, RecordsBreakingTheFormat_AreServedOrRefusedWithNothingLeakedOrOverrun) {
    const RecordCase cases[] = {
            // One expected: the control buffer has room for two, so both arrive.
            {"one more than an odd count", 2, true, 1, -EMSGSIZE, kTooMany, false},
            {"fewer than expected", 2, true, 3, 0,
             "The number of received fds(2) is less than expected(3)", false},
            {"an empty SCM_RIGHTS message", 0, true, 2, -ENODATA,
             "The number of received fds(0) is less than expected(2)", false},
            {"no control message at all", 0, false, 1, -ENODATA,
             "The number of received fds(0) is less than expected(1)", false},
            // Two expected, five sent: the kernel delivers two and drops the rest.
            {"more than an even count", 5, true, 2, -EMSGSIZE, kTooMany, true},
            {"descriptors where none are expected", 3, true, 0, 0, nullptr, true},
    };
    for (const RecordCase& c : cases) {
        if (!c.kernelOnly || !underEmulation()) {
            play(c);
        }
    }
}

// Credentials (pid, uid, gid; as root uid and gid are 0, standard input) are
// never closed as descriptors. One expected: they fill the control buffer,
// no descriptor fits; ten expected: two descriptors still fit behind them,
// and are closed.
TEST_F(HostilePeerTest, CredentialsInsteadOfDescriptors_AreRefusedAndNeverClosed) {
    if (underEmulation()) {
        GTEST_SKIP() << "qemu-user's recvmsg adds no credentials";
    }
    const int on = 1;
    ASSERT_EQ(setsockopt(near, SOL_SOCKET, SO_PASSCRED, &on, sizeof(on)), 0);
    for (const size_t expected : {1u, 10u}) {
        ASSERT_EQ(writeRecord(far, "ab", 2, copies(expected)), 2);
        EXPECT_EQ(receive(expected), -EBADMSG);
        expectSlots(-EBADMSG, 0);
    }
    EXPECT_TRUE(isOpen(0));
    EXPECT_EQ(capture.count("unexpected control message level(1) type(2)"), 2u);
}

}  // namespace
