#include "TraceFile.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "JsonLine.h"
#include "ObserveSwitches.h"
#include "WriteAll.h"

namespace Kestrel::ipc::observe {

namespace {

constexpr uint32_t kReplyFlag = 1u << 1;  // Message::kFlagReply
constexpr size_t kEventRoom = 768;

// The calling thread's id, asked once per thread (and again in a forked child).
int threadId(int pid) {
    thread_local int sPid = -1;
    thread_local int sTid = 0;
    if (sPid != pid) {
        sPid = pid;
        sTid = static_cast<int>(::syscall(SYS_gettid));
    }
    return sTid;
}

// A name fit for a JSON string: printable ASCII without quotes or escapes.
void sanitise(char* text) {
    for (char* c = text; *c != '\0'; ++c) {
        if (*c < 0x20 || *c > 0x7e || *c == '"' || *c == '\\') {
            *c = '_';
        }
    }
}

// A trace that cannot be written is given up, not reported.
void put(int fd, const char* text, size_t length) { static_cast<void>(writeAll(fd, text, length)); }

// The flow phase of a kind: a send starts the flow, a receive steps it, a
// dispatch or a reply callback ends it. A handler run has none.
const char* flowPhase(TraceKind kind) {
    switch (kind) {
        case TraceKind::kSend:
            return "s";
        case TraceKind::kReceive:
            return "t";
        case TraceKind::kDispatch:
        case TraceKind::kReplyCallback:
        case TraceKind::kReplyToCall:
            return "f";
        case TraceKind::kHandlerRun:
            break;
    }
    return nullptr;
}

}  // namespace

const char* nameOf(TraceKind kind) {
    switch (kind) {
        case TraceKind::kSend:
            return "send";
        case TraceKind::kReceive:
            return "receive";
        case TraceKind::kHandlerRun:
            return "handleEvent";
        case TraceKind::kDispatch:
            return "dispatch";
        case TraceKind::kReplyCallback:
            return "reply callback";
        case TraceKind::kReplyToCall:
            return "reply to call";
    }
    return "?";
}

TraceFile& TraceFile::instance() {
    // Never destroyed: threads may still trace while the process exits.
    static TraceFile* const sInstance = [] {
        auto* file = new TraceFile;
        static_cast<void>(std::atexit([] { TraceFile::instance().finish(); }));
        return file;
    }();
    return *sInstance;
}

bool TraceFile::start(const char* path) {
    utils::LockGuard lock(mLock);
    if (mFd >= 0) {
        errno = EBUSY;
        return false;
    }
    bool creator = true;
    int fd = ::open(path, O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0 && errno == EEXIST) {
        creator = false;
        fd = ::open(path, O_WRONLY | O_APPEND | O_CLOEXEC);
    }
    if (fd < 0) {
        return false;
    }
    mFd = fd;
    mCreator = creator;
    mPid = static_cast<int>(::getpid());
    char name[64] = {};
    if (FILE* comm = std::fopen("/proc/self/comm", "re")) {
        if (std::fgets(name, sizeof(name), comm) != nullptr) {
            name[std::strcspn(name, "\n")] = '\0';
        }
        static_cast<void>(std::fclose(comm));
    }
    writeProcessName(creator ? "[\n" : ",\n", mPid, name);
    turnOn(kTraceFile);
    return true;
}

void TraceFile::nameProcess(const char* name) {
    utils::SharedLock lock(mLock);
    if (mFd >= 0) {
        writeProcessName(",\n", static_cast<int>(::getpid()), name);
    }
}

void TraceFile::writeProcessName(const char* before, int pid, const char* name) {
    char safe[64] = {};
    static_cast<void>(std::snprintf(safe, sizeof(safe), "%s", name));
    sanitise(safe);
    char text[kEventRoom];
    const int length =
            std::snprintf(text, sizeof(text),
                          R"(%s{"name":"process_name","ph":"M","pid":%d,"args":{"name":"%s"}})",
                          before, pid, safe);
    put(mFd, text, static_cast<size_t>(length));
}

void TraceFile::finish() {
    utils::LockGuard lock(mLock);
    if (mFd < 0) {
        return;
    }
    turnOff(kTraceFile);
    // A child forked without exec shares the file but did not create it.
    if (mCreator && ::getpid() == mPid) {
        put(mFd, "\n]\n", 3);
    }
    ::close(mFd);
    mFd = -1;
}

void TraceFile::keepOpen(std::vector<int>& descriptors) {
    utils::SharedLock lock(mLock);
    if (mFd >= 0) {
        descriptors.push_back(mFd);
    }
}

void TraceFile::writeThreadName(int pid, int tid) {
    thread_local int sNamedFor = -1;  // the process this thread was named in
    if (sNamedFor == pid) {
        return;
    }
    sNamedFor = pid;
    char name[32] = {};
    if (pthread_getname_np(pthread_self(), name, sizeof(name)) != 0) {
        static_cast<void>(std::snprintf(name, sizeof(name), "thread %d", tid));
    }
    sanitise(name);
    char text[kEventRoom];
    const int length = std::snprintf(
            text, sizeof(text),
            ",\n{\"name\":\"thread_name\",\"ph\":\"M\",\"pid\":%d,\"tid\":%d,\"args\":{\"name\":"
            "\"%s\"}}",
            pid, tid, name);
    put(mFd, text, static_cast<size_t>(length));
}

void TraceFile::write(const TraceEvent& event) {
    utils::SharedLock lock(mLock);
    if (mFd < 0) {
        return;
    }
    const int pid = static_cast<int>(::getpid());  // a forked child writes as itself
    const int tid = threadId(pid);
    writeThreadName(pid, tid);
    JsonLine line;
    line.text(",\n{\"name\":\"").text(nameOf(event.kind)).text(R"(","cat":"ipc","ph":"X")");
    line.text(",\"pid\":").signedNumber(pid).text(",\"tid\":").signedNumber(tid);
    line.text(",\"ts\":")
            .micros(event.beginNs)
            .text(",\"dur\":")
            .micros(event.endNs - event.beginNs);
    line.text(R"(,"args":{"fd":)").signedNumber(event.fd);
    const TracedMessage& m = event.message;
    if (event.hasMessage) {
        line.text(",\"id\":").number(m.id).text(",\"type\":").number(m.type);
        line.text(",\"reply\":").text((m.flags & kReplyFlag) != 0 ? "true" : "false");
        line.text(",\"bytes\":").number(m.dataBytes).text(",\"fds\":").number(m.descriptors);
    }
    if (event.kind == TraceKind::kSend || event.kind == TraceKind::kReceive) {
        line.text(",\"result\":").signedNumber(event.result);
    }
    line.text("}}");
    const char* const phase = flowPhase(event.kind);
    if (event.hasMessage && phase != nullptr) {
        // Inside its slice, so that the viewer binds it there: a send's and a
        // dispatch's at their start, a receive's at its end (a receive may
        // wait long before its message comes).
        const int64_t at = *phase == 't' ? event.endNs - 1 : event.beginNs + 1;
        line.text(",\n{\"name\":\"message\",\"cat\":\"ipc\",\"ph\":\"").text(phase);
        line.text(R"(","id":)").hexString(flowOf(m, kReplyFlag));
        line.text(",\"pid\":").signedNumber(pid).text(",\"tid\":").signedNumber(tid);
        line.text(",\"ts\":").micros(at).text(R"(,"bp":"e"})");
    }
    put(mFd, line.data(), line.size());
}

}  // namespace Kestrel::ipc::observe
