# Clang's thread-safety analysis: checks at compile time that every member
# annotated IPC_GUARDED_BY (include/ipc/utils/ThreadSafety.h) is touched only
# with its lock held. On by default with clang, for every target below this
# point (library, tests, examples, fuzz targets); its findings are errors.
# Other compilers ignore the annotations.
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    set(VELACAM_THREAD_SAFETY_ANALYSIS_DEFAULT ON)
else()
    set(VELACAM_THREAD_SAFETY_ANALYSIS_DEFAULT OFF)
endif()
option(VELACAM_THREAD_SAFETY_ANALYSIS "Check the lock annotations (clang only)"
       ${VELACAM_THREAD_SAFETY_ANALYSIS_DEFAULT})

if(VELACAM_THREAD_SAFETY_ANALYSIS)
    if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
        message(FATAL_ERROR "VELACAM_THREAD_SAFETY_ANALYSIS needs clang, not ${CMAKE_CXX_COMPILER_ID}")
    endif()
    add_compile_options(-Wthread-safety -Werror=thread-safety)

    # The annotations must reach the compiler: a read of a guarded member
    # without its lock has to be rejected, or the analysis checks nothing.
    set(VELACAM_TSA_PROBE ${CMAKE_CURRENT_BINARY_DIR}/thread_safety_probe.cpp)
    file(WRITE ${VELACAM_TSA_PROBE} [=[
#include <ipc/utils/Mutex.h>
struct Probe {
    Kestrel::ipc::utils::Mutex mMutex;
    int mValue IPC_GUARDED_BY(mMutex) = 0;
    int unguardedRead() { return mValue; }
};
int probe() { return Probe().unguardedRead(); }
]=])
    set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
    try_compile(VELACAM_TSA_PROBE_COMPILES ${CMAKE_CURRENT_BINARY_DIR}/thread_safety_probe
        SOURCES ${VELACAM_TSA_PROBE}
        CMAKE_FLAGS "-DINCLUDE_DIRECTORIES=${CMAKE_CURRENT_SOURCE_DIR}/include"
        COMPILE_DEFINITIONS -Wthread-safety -Werror=thread-safety
        CXX_STANDARD 17)
    unset(CMAKE_TRY_COMPILE_TARGET_TYPE)
    if(VELACAM_TSA_PROBE_COMPILES)
        message(FATAL_ERROR "the thread-safety analysis accepts an unguarded read: "
                            "the annotations of ipc/utils/ThreadSafety.h are not active")
    endif()
endif()
