# Installs the build tree into a scratch prefix, then builds and runs a user's
# application against it with nothing else set up: with CMake asking for
# C++14, C++17 and no standard, and with the pkg-config command line that
# README.md gives, copied from it. Also compiles every installed public header
# together, which fails when a platform header they include was not installed.
# Arguments: -DBUILD_DIR=<library build> -DSOURCE_DIR=<consumer> -DWORK_DIR=<scratch>
get_filename_component(README ${SOURCE_DIR}/../../../README.md ABSOLUTE)
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix}
                RESULT_VARIABLE result OUTPUT_QUIET)
if(result)
    message(FATAL_ERROR "install failed")
endif()
unset(ENV{LD_LIBRARY_PATH})

foreach(standard 14 17 none)
    set(build ${WORK_DIR}/build-${standard})
    set(standard_option "")
    if(NOT standard STREQUAL "none")
        set(standard_option -DCONSUMER_CXX_STANDARD=${standard})
    endif()
    execute_process(COMMAND ${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${build}
                            -DCMAKE_PREFIX_PATH=${prefix} ${standard_option}
                    RESULT_VARIABLE result OUTPUT_QUIET)
    if(result)
        message(FATAL_ERROR "configuring the consumer (C++ standard ${standard}) failed")
    endif()
    execute_process(COMMAND ${CMAKE_COMMAND} --build ${build} RESULT_VARIABLE result)
    if(result)
        message(FATAL_ERROR "building the consumer (C++ standard ${standard}) failed")
    endif()
    execute_process(COMMAND ${build}/consumer RESULT_VARIABLE result)
    if(result)
        message(FATAL_ERROR "the consumer (C++ standard ${standard}) failed")
    endif()
endforeach()

# The README's pkg-config command line, as written, on app.cpp in a scratch
# directory; the program must then run with no LD_LIBRARY_PATH.
file(READ ${README} readme)
string(REGEX MATCH "\nc\\+\\+ [^\n]*app\\.cpp([^\n]*\\\\\n)*[^\n]*" command "${readme}")
if(NOT command)
    message(FATAL_ERROR "README.md has no \"c++ ... app.cpp ...\" command line")
endif()
string(STRIP "${command}" command)
file(MAKE_DIRECTORY ${WORK_DIR}/pkg-config)
file(COPY_FILE ${SOURCE_DIR}/main.cpp ${WORK_DIR}/pkg-config/app.cpp)
set(ENV{PKG_CONFIG_PATH} ${prefix}/lib/pkgconfig)
execute_process(COMMAND sh -c "${command}" WORKING_DIRECTORY ${WORK_DIR}/pkg-config
                RESULT_VARIABLE result)
if(result)
    message(FATAL_ERROR "README's pkg-config command failed:\n${command}")
endif()
execute_process(COMMAND ${WORK_DIR}/pkg-config/app RESULT_VARIABLE result)
if(result)
    message(FATAL_ERROR "the program built with README's pkg-config command failed to run")
endif()

file(GLOB_RECURSE headers RELATIVE ${prefix}/include ${prefix}/include/ipc/*.h)
list(TRANSFORM headers REPLACE "(.+)" "#include <\\1>\n")
string(CONCAT all_headers ${headers})
file(WRITE ${WORK_DIR}/all_headers.cpp "${all_headers}")
execute_process(
    COMMAND sh -c "c++ -std=c++17 -fsyntax-only ${WORK_DIR}/all_headers.cpp \
$(pkg-config --cflags velacam_ipc_core)"
    RESULT_VARIABLE result)
if(result)
    message(FATAL_ERROR "the installed public headers do not compile with the installed tree")
endif()
