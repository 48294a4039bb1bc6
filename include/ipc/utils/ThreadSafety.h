// Lock annotations that clang's thread-safety analysis (-Wthread-safety)
// checks at compile time; with any other compiler they expand to nothing.
//
// Annotate a lock type with IPC_CAPABILITY, the data it protects with
// IPC_GUARDED_BY, and functions with what they expect or do:
//
//   mutable Mutex mMutex;
//   std::vector<pollfd> mPollfds IPC_GUARDED_BY(mMutex);
//
//   void dumpLocked() const IPC_REQUIRES_SHARED(mMutex);  // caller holds it
//   void clear() IPC_EXCLUDES(mMutex);                     // takes it itself
//
// The standard mutexes of libstdc++ carry no annotations, so use the wrappers
// of ipc/utils/Mutex.h (Mutex, SharedMutex and their scoped locks), which do.
// The build turns the analysis on for clang (VELACAM_THREAD_SAFETY_ANALYSIS)
// and makes its findings errors.
#pragma once

#include "ipc/Export.h"

#if defined(__clang__)
#define IPC_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define IPC_THREAD_ANNOTATION(x)
#endif

// On a class: objects of it are locks; `name` appears in the diagnostics.
#define IPC_CAPABILITY(name) IPC_THREAD_ANNOTATION(capability(name))
// On a class: objects of it hold a lock for their lifetime (RAII).
#define IPC_SCOPED_CAPABILITY IPC_THREAD_ANNOTATION(scoped_lockable)

// On a member: read it with `lock` held (shared or exclusive), write it with
// `lock` held exclusively.
#define IPC_GUARDED_BY(lock) IPC_THREAD_ANNOTATION(guarded_by(lock))
// On a pointer member: the same, for what it points to.
#define IPC_PT_GUARDED_BY(lock) IPC_THREAD_ANNOTATION(pt_guarded_by(lock))

// On a lock member: the order in which locks are taken.
#define IPC_ACQUIRED_BEFORE(...) IPC_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define IPC_ACQUIRED_AFTER(...) IPC_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))

// On a function: the caller must hold the locks (exclusively / at least
// shared) and still holds them on return.
#define IPC_REQUIRES(...) IPC_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define IPC_REQUIRES_SHARED(...) IPC_THREAD_ANNOTATION(requires_shared_capability(__VA_ARGS__))

// On a function: it takes the locks and returns holding them (with no
// arguments on a lock's member function: the lock itself).
#define IPC_ACQUIRE(...) IPC_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define IPC_ACQUIRE_SHARED(...) IPC_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))

// On a function: the caller holds the locks and it releases them (the
// _GENERIC form releases a lock held in either mode).
#define IPC_RELEASE(...) IPC_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define IPC_RELEASE_SHARED(...) IPC_THREAD_ANNOTATION(release_shared_capability(__VA_ARGS__))
#define IPC_RELEASE_GENERIC(...) IPC_THREAD_ANNOTATION(release_generic_capability(__VA_ARGS__))

// On a function returning bool: it took the locks when it returns the first
// argument, e.g. IPC_TRY_ACQUIRE(true).
#define IPC_TRY_ACQUIRE(...) IPC_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define IPC_TRY_ACQUIRE_SHARED(...) \
    IPC_THREAD_ANNOTATION(try_acquire_shared_capability(__VA_ARGS__))

// On a function: the caller must not hold the locks (the function takes them
// itself and they are not reentrant).
#define IPC_EXCLUDES(...) IPC_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))

// On a function: the analysis assumes the lock is held after a call (use it
// where the holding is known by other means, e.g. after std::lock).
#define IPC_ASSERT_CAPABILITY(lock) IPC_THREAD_ANNOTATION(assert_capability(lock))
#define IPC_ASSERT_SHARED_CAPABILITY(lock) IPC_THREAD_ANNOTATION(assert_shared_capability(lock))

// On a function: the returned reference is the lock `lock`.
#define IPC_RETURN_CAPABILITY(lock) IPC_THREAD_ANNOTATION(lock_returned(lock))

// On a function: not checked. Say in a comment why the locking is right.
#define IPC_NO_THREAD_SAFETY_ANALYSIS IPC_THREAD_ANNOTATION(no_thread_safety_analysis)
