#include "Orchestrator.h"

#include <fcntl.h>
#include <ipc/SocketPair.h>
#include <ipc/UnixDomainSocket.h>
#include <ipc/utils/Process.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "ServerFigures.h"
#include "SoakServer.h"

namespace velacam::soak {

using Kestrel::ipc::SocketPair;
using Kestrel::ipc::UnixDomainSocket;
using Kestrel::ipc::utils::Process;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

namespace {

constexpr unsigned long kSocketBuffer = 64 * 1024;
constexpr milliseconds kTick{20};
// How long a client told to finish may take before it is killed.
constexpr milliseconds kFinishLimit{30000};

// Replies are owed to these until they finish.
bool owedEverything(Role role) {
    return role == Role::kWellBehaved || role == Role::kRequesterToStop;
}

struct Slot {
    Role role = Role::kWellBehaved;
    pid_t pid = -1;
    Clock::time_point finishAt;  // SIGUSR1 then
    Clock::time_point killAt;    // SIGKILL then (time_point::max() for never)
    Clock::time_point stopAt;    // the next SIGSTOP (max() for never)
    Clock::time_point resumeAt;  // SIGCONT of a stopped client
    bool stopped = false;
    bool finishing = false;
    bool killedOnPurpose = false;
};

class Orchestrator {
  public:
    Orchestrator(const SoakOptions& options, SoakTally& tally)
        : mOptions(options), mTally(tally), mRandom(options.seed), mSelfPid(::getpid()) {
        char path[4096];
        const ssize_t length = ::readlink("/proc/self/exe", path, sizeof(path) - 1);
        mExe.assign(path, length > 0 ? static_cast<size_t>(length) : 0);
        for (size_t r = 1; r < kRoleCount; ++r) {
            if ((options.roles & (1u << r)) != 0) {
                mFaultRoles.push_back(static_cast<Role>(r));
            }
        }
    }

    bool run() {
        raiseDescriptorLimit();
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) {
            mTally.violation(std::string("report pipe: ") + std::strerror(errno));
            return false;
        }
        mReports = Kestrel::utils::sys::FileDescriptor(ends[0], 0);
        mReportWriter = Kestrel::utils::sys::FileDescriptor(ends[1], 0);
        ::fcntl(ends[0], F_SETFL, O_NONBLOCK);
        // The write end goes to the children without close-on-exec.
        ::fcntl(ends[1], F_SETFD, 0);

        mSlots.resize(kWellBehavedClients + kMisbehavingSlots);
        SoakServer server;
        mServer = &server;
        mTally.descriptorsAtStart = openDescriptorCount();
        mTally.rssAtStart = residentBytes();

        const auto end = Clock::now() + std::chrono::seconds(mOptions.seconds);
        for (uint32_t slot = 0; slot < kWellBehavedClients; ++slot) {
            start(slot, Role::kWellBehaved, end);
        }
        while (Clock::now() < end) {
            for (uint32_t slot = kWellBehavedClients; slot < mSlots.size(); ++slot) {
                if (mSlots[slot].pid < 0 && !mFaultRoles.empty()) {
                    start(slot, mFaultRoles[mRandom() % mFaultRoles.size()], end);
                }
            }
            tick();
        }
        finishAll();
        for (uint32_t slot = 0; slot < mSlots.size(); ++slot) {
            server.closeClient(slot);
        }
        if (!server.drain(milliseconds(30000))) {
            mTally.violation("the server's loop did not drain within 30 s");
        }
        readReports();
        mTally.server = server.counters();
        judgeFigures();
        mServer = nullptr;
        return mTally.violations.empty();
    }

  private:
    static void raiseDescriptorLimit() {
        rlimit limit{};
        if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
            limit.rlim_cur = limit.rlim_max;
            (void)::setrlimit(RLIMIT_NOFILE, &limit);
        }
    }

    milliseconds between(int64_t low, int64_t high) {
        return milliseconds(low +
                            static_cast<int64_t>(mRandom() % static_cast<uint64_t>(high - low)));
    }

    void start(uint32_t index, Role role, Clock::time_point end) {
        SocketPair pair = UnixDomainSocket::createPairedSocket(kSocketBuffer, kSocketBuffer, false);
        if (pair.first.get() < 0) {
            mTally.violation("no socket pair for a client: " + std::to_string(pair.first.get()));
            return;
        }
        const ClientPlan plan{role, index, mRandom(), pair.second.get(), mReportWriter.get()};
        Process child = mSelf.create(mExe, clientArguments(plan), {});
        if (::getpid() != mSelfPid) {
            ::_exit(127);  // the exec failed in the child
        }
        if (child.pid() < 0) {
            mTally.violation("a client could not be started");
            return;
        }
        mServer->addClient(index, std::move(pair.first));
        ++mTally.roles[static_cast<size_t>(role)].started;

        const auto now = Clock::now();
        const auto never = Clock::time_point::max();
        Slot& slot = mSlots[index];
        slot = Slot{};
        slot.role = role;
        slot.pid = child.pid();
        slot.stopAt = never;
        slot.killAt = never;
        switch (role) {
            case Role::kWellBehaved:
                slot.finishAt = end;
                break;
            case Role::kRequesterToKill:
                slot.finishAt = never;
                slot.killAt = now + between(300, 4000);
                break;
            case Role::kRequesterToStop:
                slot.finishAt = now + between(3000, 8000);
                slot.stopAt = now + between(200, 1000);
                break;
            case Role::kFullDescriptors:
                slot.finishAt = now + between(2000, 6000);
                break;
            // Longer than the reply bound: a server whose reply to it blocks
            // for as long as it does not read starves the others past it.
            case Role::kDeaf:
                slot.finishAt = now + between(15000, 25000);
                break;
            default:
                slot.finishAt = now + milliseconds(10000);
                break;
        }
    }

    void signal(Slot& slot, int number) {
        if (slot.pid > 0) {
            (void)::kill(slot.pid, number);
        }
    }

    // One turn: signals that are due, children that ended, reports that came.
    void tick() {
        const auto now = Clock::now();
        for (Slot& slot : mSlots) {
            if (slot.pid < 0) {
                continue;
            }
            if (slot.stopped && now >= slot.resumeAt) {
                signal(slot, SIGCONT);
                slot.stopped = false;
                slot.stopAt = now + between(500, 2000);
            } else if (!slot.stopped && !slot.finishing && now >= slot.stopAt) {
                const milliseconds pause = between(1000, 3000);
                signal(slot, SIGSTOP);
                slot.stopped = true;
                slot.resumeAt = now + pause;
                ++mTally.stopsSent;
                mTally.stoppedMs += static_cast<uint64_t>(pause.count());
            }
            if (!slot.killedOnPurpose && now >= slot.killAt) {
                signal(slot, SIGKILL);
                slot.killedOnPurpose = true;
                ++mTally.killsSent;
            }
            if (!slot.stopped && !slot.finishing && now >= slot.finishAt) {
                signal(slot, SIGUSR1);
                slot.finishing = true;
                slot.killAt = std::min(slot.killAt, now + kFinishLimit);
            }
            if (slot.finishing && !slot.killedOnPurpose && now >= slot.killAt) {
                if (owedEverything(slot.role)) {
                    mTally.violation("client (" + std::string(roleName(slot.role)) +
                                     ") did not finish within 30 s of being asked");
                }
                signal(slot, SIGKILL);
                slot.killedOnPurpose = true;
            }
        }
        reap();
        readReports();
        std::this_thread::sleep_for(kTick);
    }

    void reap() {
        int status = 0;
        pid_t pid;
        while ((pid = ::waitpid(-1, &status, WNOHANG)) > 0) {
            mSelf.removeFromObservation(pid);
            for (uint32_t index = 0; index < mSlots.size(); ++index) {
                Slot& slot = mSlots[index];
                if (slot.pid != pid) {
                    continue;
                }
                judgeExit(slot, status);
                mServer->closeClient(index);
                slot.pid = -1;
            }
        }
    }

    void judgeExit(const Slot& slot, int status) {
        const bool killed = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
        const bool mayBeKilled = slot.killedOnPurpose || slot.role == Role::kHalfSender;
        if ((WIFEXITED(status) && WEXITSTATUS(status) == 0) || (killed && mayBeKilled)) {
            return;
        }
        mTally.violation("client (" + std::string(roleName(slot.role)) + ") ended " +
                         (WIFSIGNALED(status)
                                  ? "by signal " + std::to_string(WTERMSIG(status))
                                  : "with status " + std::to_string(WEXITSTATUS(status))));
    }

    void readReports() {
        uint8_t chunk[sizeof(ClientReport) * 8];
        ssize_t got;
        while ((got = ::read(mReports.get(), chunk, sizeof(chunk))) > 0) {
            mPending.insert(mPending.end(), chunk, chunk + got);
        }
        size_t used = 0;
        for (; used + sizeof(ClientReport) <= mPending.size(); used += sizeof(ClientReport)) {
            ClientReport report;
            std::memcpy(&report, mPending.data() + used, sizeof(report));
            mTally.add(report);
        }
        mPending.erase(mPending.begin(), mPending.begin() + static_cast<ptrdiff_t>(used));
    }

    // The end of the run: everyone is resumed and asked to finish; those that
    // do not within the limit are killed.
    void finishAll() {
        const auto now = Clock::now();
        for (Slot& slot : mSlots) {
            if (slot.stopped) {
                signal(slot, SIGCONT);
                slot.stopped = false;
            }
            slot.stopAt = Clock::time_point::max();
            slot.finishAt = std::min(slot.finishAt, now);
        }
        const auto limit = now + kFinishLimit + milliseconds(5000);
        while (Clock::now() < limit) {
            bool alive = false;
            for (const Slot& slot : mSlots) {
                alive = alive || slot.pid > 0;
            }
            if (!alive) {
                return;
            }
            tick();
        }
    }

    void judgeFigures() {
        // The reactor lets go of a disconnected client's handler at the end of
        // its cycle; allow it a moment.
        const auto limit = Clock::now() + milliseconds(3000);
        do {
            mTally.descriptorsAtEnd = openDescriptorCount();
            if (mTally.descriptorsAtEnd == mTally.descriptorsAtStart) {
                break;
            }
            std::this_thread::sleep_for(milliseconds(50));
        } while (Clock::now() < limit);
        mTally.rssAtEnd = residentBytes();
        if (mTally.descriptorsAtEnd != mTally.descriptorsAtStart) {
            mTally.violation("the server holds " + std::to_string(mTally.descriptorsAtEnd) +
                             " descriptors at the end, " +
                             std::to_string(mTally.descriptorsAtStart) + " at the start");
        }
#if defined(__SANITIZE_ADDRESS__)
        mTally.rssJudged = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
        mTally.rssJudged = false;
#endif
#endif
        if (mTally.rssJudged && mTally.rssAtEnd > mTally.rssAtStart + kRssToleranceBytes) {
            mTally.violation("the server's resident memory grew from " +
                             std::to_string(mTally.rssAtStart) + " to " +
                             std::to_string(mTally.rssAtEnd) + " bytes");
        }
        const RoleTally& good = mTally.roles[static_cast<size_t>(Role::kWellBehaved)];
        if (good.reports != good.started) {
            mTally.violation(std::to_string(good.started - good.reports) +
                             " well-behaved client(s) left no report");
        }
        if (good.replies == 0) {
            mTally.violation("no well-behaved request was answered");
        }
    }

    const SoakOptions& mOptions;
    SoakTally& mTally;
    std::mt19937_64 mRandom;
    pid_t mSelfPid;
    std::string mExe;
    std::vector<Role> mFaultRoles;
    Process mSelf = Process::current();
    SoakServer* mServer = nullptr;
    std::vector<Slot> mSlots;
    Kestrel::utils::sys::FileDescriptor mReports;
    Kestrel::utils::sys::FileDescriptor mReportWriter;
    std::vector<uint8_t> mPending;
};

}  // namespace

bool runSoak(const SoakOptions& options, SoakTally& tally) {
    tally.seconds = options.seconds;
    tally.seed = options.seed;
    return Orchestrator(options, tally).run();
}

}  // namespace velacam::soak
