#include "ReceiveBuffer.h"

#include <pthread.h>
#include <sys/mman.h>

#include <atomic>
#include <cstdint>

namespace Kestrel::ipc::receive_buffer {

namespace {

enum class State : uint8_t { kNotYet, kMapped, kNone };

// Trivially destructible, so that it can be read at any point of the thread's
// teardown: a thread_local object with a destructor may already be gone when
// another thread_local's destructor receives.
struct ThreadBuffer {
    unsigned char* base;
    State state;
};
thread_local ThreadBuffer tBuffer{nullptr, State::kNotYet};

// Runs after the thread's thread_local destructors.
void unmapAtThreadExit(void* base) {
    ::munmap(base, kBytes);
    tBuffer = ThreadBuffer{nullptr, State::kNone};
}

// The key whose destructor unmaps a thread's buffer, created on the first
// mapping. Trivially destructible, as the thread state is.
struct ExitKey {
    pthread_key_t key;
    std::atomic<bool> usable;
};
ExitKey gExitKey{};

// Deletes the key when the library is unloaded (or the process exits), so
// that no thread ending later calls into code that is gone; a buffer mapped
// by then stays mapped.
struct ExitKeyDeleter {
    ~ExitKeyDeleter() {
        if (gExitKey.usable.exchange(false)) {
            ::pthread_key_delete(gExitKey.key);
        }
    }
};

// Registers `buffer` for unmapping at this thread's exit: false when there
// is no key (none could be created, or it is deleted).
bool unmapAtExit(void* buffer) {
    static const bool created = [] {
        if (::pthread_key_create(&gExitKey.key, unmapAtThreadExit) != 0) {
            return false;
        }
        gExitKey.usable.store(true);
        static ExitKeyDeleter deleter;  // destroyed before anything made earlier
        return true;
    }();
    return created && gExitKey.usable.load() && ::pthread_setspecific(gExitKey.key, buffer) == 0;
}

unsigned char* mapForThisThread() {
    tBuffer.state = State::kNone;
    void* const base =
            ::mmap(nullptr, kBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (base == MAP_FAILED) {
        return nullptr;
    }
    if (!unmapAtExit(base)) {
        ::munmap(base, kBytes);
        return nullptr;
    }
    tBuffer = ThreadBuffer{static_cast<unsigned char*>(base), State::kMapped};
    return tBuffer.base;
}

}  // namespace

unsigned char* forThisThread() {
    switch (tBuffer.state) {
        case State::kMapped:
            return tBuffer.base;
        case State::kNotYet:
            return mapForThisThread();
        case State::kNone:
            break;
    }
    return nullptr;
}

}  // namespace Kestrel::ipc::receive_buffer
