# The platform build (Android.bp) must compile exactly the library sources that
# CMake compiles: every ipc/*.cpp, ipc/internal/*.cpp and ipc/utils/*.cpp,
# nothing else.
# Argument: -DSOURCE_DIR=<repository root>
file(GLOB cmake_sources RELATIVE ${SOURCE_DIR} ${SOURCE_DIR}/ipc/*.cpp ${SOURCE_DIR}/ipc/internal/*.cpp
     ${SOURCE_DIR}/ipc/utils/*.cpp)
list(SORT cmake_sources)
file(READ ${SOURCE_DIR}/Android.bp bp)
string(REGEX MATCHALL "\"ipc/[A-Za-z0-9_/]+\\.cpp\"" bp_sources "${bp}")
string(REPLACE "\"" "" bp_sources "${bp_sources}")
list(SORT bp_sources)
if(NOT cmake_sources STREQUAL bp_sources)
    message(FATAL_ERROR "Android.bp and CMake disagree on the sources:\n"
                        "  CMake:      ${cmake_sources}\n  Android.bp: ${bp_sources}")
endif()
