# Installs the build tree into a scratch prefix, then configures, builds and
# runs the consumer application against it, with nothing else set up.
# Arguments: -DBUILD_DIR=<library build> -DSOURCE_DIR=<consumer> -DWORK_DIR=<scratch>
file(REMOVE_RECURSE ${WORK_DIR})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${WORK_DIR}/prefix
                RESULT_VARIABLE result OUTPUT_QUIET)
if(result)
    message(FATAL_ERROR "install failed")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${WORK_DIR}/build
                        -DCMAKE_PREFIX_PATH=${WORK_DIR}/prefix RESULT_VARIABLE result)
if(result)
    message(FATAL_ERROR "configuring the consumer failed")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build ${WORK_DIR}/build RESULT_VARIABLE result)
if(result)
    message(FATAL_ERROR "building the consumer failed")
endif()
execute_process(COMMAND ${WORK_DIR}/build/consumer RESULT_VARIABLE result)
if(result)
    message(FATAL_ERROR "the consumer failed")
endif()

# The same application through the pkg-config file.
find_program(PKG_CONFIG pkg-config REQUIRED)
set(ENV{PKG_CONFIG_PATH} ${WORK_DIR}/prefix/lib/pkgconfig)
execute_process(
    COMMAND sh -c "c++ -std=c++17 ${SOURCE_DIR}/main.cpp -o ${WORK_DIR}/consumer-pc \
$(${PKG_CONFIG} --cflags --libs velacam_ipc_core) -Wl,-rpath,${WORK_DIR}/prefix/lib \
&& ${WORK_DIR}/consumer-pc"
    RESULT_VARIABLE result)
if(result)
    message(FATAL_ERROR "the pkg-config consumer failed")
endif()
