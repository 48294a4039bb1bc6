#include <ipc/MessageLoop.h>
#include <ipc/utils/Log.h>
#include <ipc/utils/Runnable.h>
#include <ipc/utils/Thread.h>
#include <pthread.h>
#include <unistd.h>

#include <exception>
#include <system_error>
#include <utility>

#include "../internal/SharedRunnable.h"

namespace Kestrel::ipc::utils {

namespace {
constexpr LogSite kLogSite{"Thread", "ipc/utils/Thread", kLogModuleCore};

bool isMainThread() { return gettid() == getpid(); }

// Tears a started thread's record down when the thread exits.
struct ThreadDataGuard {
    Thread* mThread = nullptr;  // set by the first run() on this thread

    ~ThreadDataGuard() {
        if (mThread != nullptr) {
            mThread->postTask();
        }
    }
};

// The calling thread's record and its guard, in one object so that the guard
// (declared last, destroyed first) always runs while the record's owner is
// still alive.
struct ThreadLocals {
    std::unique_ptr<ThreadData> mRecord;
    ThreadDataGuard mGuard;
};

thread_local ThreadLocals tLocals;
}  // namespace

Thread Thread::sMainThread;

ThreadData::ThreadData() : mTid(gettid()) {}

ThreadData::~ThreadData() = default;

ThreadData& ThreadData::myData() {
    if (tLocals.mRecord) {
        return *tLocals.mRecord;
    }
    if (!isMainThread()) {
        IPC_FATAL("only the main thread can reach here.");
    }
    tLocals.mRecord = std::make_unique<ThreadData>();
    tLocals.mRecord->mThread = &Thread::sMainThread;
    return *tLocals.mRecord;
}

Thread::Thread() noexcept = default;

Thread::Thread(Runnable* runnable, bool ownsRunnable)
    : mRunnable(runnable != nullptr ? SharedRunnable::make(runnable, ownsRunnable) : nullptr),
      mOwnsRunnable(ownsRunnable) {}

Thread::Thread(Thread&& other) noexcept
    : mRunnable(std::exchange(other.mRunnable, nullptr)),
      mOwnsRunnable(std::exchange(other.mOwnsRunnable, false)) {}

Thread& Thread::operator=(Thread&& other) noexcept {
    if (this != &other) {
        releaseRunnable();
        mRunnable = std::exchange(other.mRunnable, nullptr);
        mOwnsRunnable = std::exchange(other.mOwnsRunnable, false);
    }
    return *this;
}

Thread::~Thread() {
    wait();
    releaseRunnable();
}

void Thread::releaseRunnable() {
    if (mRunnable != nullptr) {
        std::exchange(mRunnable, nullptr)->drop();
    }
    mOwnsRunnable = false;
}

void Thread::start() {
    // The new thread holds a reference of its own, so that the runnable
    // outlives this object's hold on it (a move hands that hold on).
    SharedRunnable::Reference held = SharedRunnable::referenceTo(mRunnable);
    try {
        mThread = std::thread([this, reference = held.get()] { run(reference); });
    } catch (const std::system_error& error) {
        throw std::system_error(error.code(), "thread constructor failed");
    }
    static_cast<void>(held.release());  // now the new thread's
}

void Thread::wait() {
    if (mThread.joinable()) {
        mThread.join();
    }
}

void Thread::run() { run(SharedRunnable::referenceTo(mRunnable).release()); }

void Thread::run(SharedRunnable* reference) {
    const SharedRunnable::Reference held(reference);
    if (tLocals.mGuard.mThread == nullptr) {
        tLocals.mGuard.mThread = this;
        preTask();
    }
    IPC_LOGD("[%s] thread %d", __func__, ThreadData::myData().mTid);
    // An exception has nowhere to go from here: end the process saying so,
    // rather than through a bare std::terminate. A Thread without a runnable
    // must not be started: nothing guards against it.
    try {
        held->runnable()->run();
    } catch (const std::exception& error) {
        IPC_FATAL("runnable threw an exception: %s", error.what());
    } catch (...) {
        IPC_FATAL("runnable threw an exception: %s", "(not a std::exception)");
    }
}

Thread* Thread::myThread() { return ThreadData::myData().mThread; }

MessageLoop* Thread::myMessageLoop() {
    if (isMainThread()) {
        IPC_LOGW("only non-main thread can reach here.");
        return nullptr;
    }
    ThreadData& data = ThreadData::myData();
    if (!data.mMessageLoop) {
        data.mMessageLoop = std::make_unique<MessageLoop>();
    }
    return data.mMessageLoop.get();
}

int Thread::id() const { return ThreadData::myData().mTid; }

void Thread::setName(const std::string& name) {
    static_cast<void>(pthread_setname_np(pthread_self(), name.c_str()));
}

void Thread::preTask() {
    if (isMainThread()) {
        IPC_FATAL("only non-main thread can reach here.");
    }
    tLocals.mRecord = std::make_unique<ThreadData>();
    tLocals.mRecord->mThread = this;
}

void Thread::postTask() {
    if (isMainThread()) {
        // "threa" is the established text of this check; log readers match it.
        IPC_FATAL("only non-main threa can reach here.");
    }
    tLocals.mRecord.reset();
}

}  // namespace Kestrel::ipc::utils
