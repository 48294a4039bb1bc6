// Thread and ThreadData: operating-system threads that carry per-thread data
// and, on demand, a message loop of their own.
//
// A Thread runs a Runnable on a new thread. Every thread of the process that
// the library knows has one ThreadData: its kernel thread id, the Thread it
// runs and, once asked for, its MessageLoop. A started thread gets its record
// when it starts and loses it (with the loop) when it exits. The process's
// main thread has no Thread of its own: a static Thread object stands for it
// and its record is made on first use. A thread is the main thread exactly
// when its kernel thread id equals the process id.
//
// Ownership: a Thread may own its Runnable. A move hands on the runnable and
// its ownership only; a thread the source started keeps running on it, and
// the source keeps (and joins) that thread. An owned runnable is destroyed
// once its Thread has let go of it (destruction, or a move assignment over
// it) and every thread running it has returned, whichever comes last; so the
// moved-to object may go while the source's thread still runs the runnable.
// A ThreadData belongs to its thread and owns the loop.
// Thread: start(), wait() and destruction of one Thread must not run
// concurrently; the static accessors act on the calling thread.
// Failure: start() throws std::system_error when no thread can be created.
// An exception escaping the runnable ends the process with a fatal line that
// names it.
// Calling a per-thread operation on the wrong kind of thread (main or not)
// ends the process, except myMessageLoop(), which warns and returns null.
//
// Compatibility: kept as existing callers and log readers rely on it. id()
// gives the kernel thread id of the calling thread, not of the thread the
// object runs. setName() ignores its result, so a name longer than 15
// characters is silently not set. postTask() on the main thread ends the
// process with "only non-main threa can reach here." as spelt.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include "ipc/Export.h"

namespace Kestrel::ipc {
class MessageLoop;
}

namespace Kestrel::ipc::utils {

class Runnable;
class SharedRunnable;
class Thread;

// The per-thread record. Not copyable.
class IPC_EXPORT ThreadData {
  public:
    // Takes the calling thread's kernel thread id; no Thread, no loop.
    ThreadData();
    // Destroys the loop, if one was made.
    ~ThreadData();
    ThreadData(const ThreadData&) = delete;
    ThreadData& operator=(const ThreadData&) = delete;

    // The calling thread's record. The main thread's is made on first use; a
    // thread started by a Thread has one from its start. Any other thread
    // (say a bare std::thread) ends the process: "only the main thread can
    // reach here.".
    static ThreadData& myData();

    int32_t tid() const { return mTid; }
    // The Thread this thread runs: the static main-thread object for the main
    // thread.
    Thread* thread() const { return mThread; }

  private:
    friend class Thread;

    int32_t mTid;
    Thread* mThread = nullptr;
    std::unique_ptr<MessageLoop> mMessageLoop;  // made by Thread::myMessageLoop()
};

class IPC_EXPORT Thread {
  public:
    // No runnable; such a Thread must not be started.
    Thread() noexcept;
    // Runs `runnable` once started; destroys it at the end when `ownsRunnable`.
    Thread(Runnable* runnable, bool ownsRunnable);

    // Moves the runnable and its ownership only, leaving the source with none.
    // The operating-system thread is not moved: the new object has none, and
    // a thread the source started goes on running the runnable and is joined
    // by the source. start() on the new object starts a second thread running
    // the same runnable.
    Thread(Thread&& other) noexcept;
    // As the move constructor. This object lets go of its own runnable first
    // (destroyed now if owned and no thread runs it) and keeps its own
    // thread, if any, to join later.
    Thread& operator=(Thread&& other) noexcept;
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    // Joins a started thread, then lets go of the runnable: an owned one is
    // destroyed here unless a thread started by another Thread still runs it.
    ~Thread();

    // Starts a thread running run() on this object, with this object's
    // runnable as it is now.
    // Throws: std::system_error with the creation error and "thread
    // constructor failed". Starting while the previous thread is still
    // joinable terminates the process.
    void start();

    // Joins the thread if it is joinable; otherwise does nothing.
    // Blocks: until the runnable returns.
    void wait();

    // The body of the started thread: sets up the thread's record (once per
    // thread), then runs the runnable, which must be set. An exception that
    // escapes the runnable ends the process with "runnable threw an
    // exception: %s" (its what()).
    void run();

    // The calling thread's Thread (the static main-thread object on the main
    // thread).
    static Thread* myThread();

    // The calling thread's loop, made on first call and the same ever after.
    // On the main thread: warns "only non-main thread can reach here." and
    // returns null.
    static ipc::MessageLoop* myMessageLoop();

    // The kernel thread id of the calling thread.
    int id() const;

    // Names the calling thread (see Compatibility for long names).
    static void setName(const std::string& name);

    // Per-thread set-up and tear-down; run() and the thread-exit guard call
    // them. preTask() installs a new record for this Thread (ends the process
    // on the main thread: "only non-main thread can reach here."); postTask()
    // destroys the record and its loop (ends the process on the main thread:
    // "only non-main threa can reach here.").
    void preTask();
    void postTask();

  private:
    friend class ThreadData;  // hands out sMainThread

    // run() on `reference`, one reference to the runnable taken for this run;
    // it is dropped when the runnable returns.
    void run(SharedRunnable* reference);
    // Lets go of this object's reference to its runnable.
    void releaseRunnable();

    static Thread sMainThread;  // stands for the main thread; made at load

    std::thread mThread;
    // One reference to the runnable (null when there is none); each thread
    // running it holds another.
    SharedRunnable* mRunnable = nullptr;
    // Whether the runnable is destroyed with its last reference. The share
    // keeps the same flag; this copy keeps the class's layout.
    bool mOwnsRunnable = false;
};

}  // namespace Kestrel::ipc::utils
