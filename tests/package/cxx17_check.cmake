# A compiler set to C++14 stops at the first public header it reads, with the
# library's one line asking for C++17, and says nothing about what follows
# (std::shared_mutex, nested namespaces, inline variables).
# Arguments: -DCXX=<compiler> -DSOURCE_DIR=<repository root>
file(GLOB_RECURSE headers RELATIVE ${SOURCE_DIR}/include ${SOURCE_DIR}/include/ipc/*.h)
set(failures "")
foreach(header ${headers})
    file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/cxx14_probe.cpp "#include <${header}>\n")
    execute_process(
        COMMAND ${CXX} -std=c++14 -fsyntax-only -I${SOURCE_DIR}/include
                -I${SOURCE_DIR}/platform/host/include ${CMAKE_CURRENT_BINARY_DIR}/cxx14_probe.cpp
        RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE out)
    # The diagnostics themselves, not the source lines quoted under them.
    string(REGEX MATCHALL "[^\n]*: (fatal )?error: [^\n]*" errors "${out}")
    set(ours "")
    set(others "")
    foreach(line ${errors})
        if(line MATCHES "libvelacam_ipc_core needs C\\+\\+17 or later: compile with -std=c\\+\\+17")
            list(APPEND ours "${line}")
        elseif(NOT line MATCHES "stop-here-the-library-needs-cxx17")
            list(APPEND others "${line}")
        endif()
    endforeach()
    list(LENGTH ours count)
    if(result EQUAL 0 OR NOT count EQUAL 1 OR others)
        string(APPEND failures "${header}:\n${out}\n")
    endif()
endforeach()
if(failures)
    message(FATAL_ERROR "headers that do not stop a C++14 compiler with one line:\n${failures}")
endif()
