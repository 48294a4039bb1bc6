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
endif()
