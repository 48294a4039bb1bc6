#include "ReceiveBuffer.h"

#include <pthread.h>
#include <sys/mman.h>

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

// The key whose destructor unmaps a thread's buffer, or null when it could
// not be created (every thread then reads a record at a time).
const pthread_key_t* exitKey() {
    static pthread_key_t key;
    static const bool created = ::pthread_key_create(&key, unmapAtThreadExit) == 0;
    return created ? &key : nullptr;
}

unsigned char* mapForThisThread() {
    tBuffer.state = State::kNone;
    const pthread_key_t* const key = exitKey();
    if (key == nullptr) {
        return nullptr;
    }
    void* const base =
            ::mmap(nullptr, kBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (base == MAP_FAILED) {
        return nullptr;
    }
    if (::pthread_setspecific(*key, base) != 0) {
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
