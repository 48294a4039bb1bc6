# Runs the demo with each kind of bad argument; each must exit 2 at once and
# name the option and the value (or the flag) on standard error.
# Argument: -DDEMO=<velacam_demo>
# A case is "arguments separated by |" then "#" then the expected message.
set(cases
    "--requests|-1#--requests \"-1\" refused"
    "--requests|99999999999999999999#--requests \"99999999999999999999\" refused"
    "--requests|0#--requests \"0\" refused"
    "--requests|abc#--requests \"abc\" refused"
    "--requests|12x#--requests \"12x\" refused"
    "--buffer-size|-4#--buffer-size \"-4\" refused"
    "--buffer-size|6#--buffer-size \"6\" refused"
    "--buffer-size|1099511627776#--buffer-size \"1099511627776\" refused"
    "--fds-per-request|254#--fds-per-request \"254\" refused"
    "--buffer-size|67108864|--fds-per-request|5#--buffer-size 67108864 with --fds-per-request 5 refused"
    "--requests|3|--kill-algorithm-after|3#--kill-algorithm-after \"3\" refused"
    "--requests#--requests needs a value"
    "--frobnicate|1#unknown option \"--frobnicate\"")
set(failures 0)
foreach(case IN LISTS cases)
    string(FIND "${case}" "#" split)
    string(SUBSTRING "${case}" 0 ${split} arguments)
    math(EXPR split "${split} + 1")
    string(SUBSTRING "${case}" ${split} -1 expected)
    string(REPLACE "|" ";" arguments "${arguments}")
    execute_process(COMMAND ${DEMO} ${arguments} RESULT_VARIABLE rc OUTPUT_VARIABLE out
                    ERROR_VARIABLE err TIMEOUT 10)
    string(FIND "${err}" "velacam_demo: ${expected}" at)
    if(NOT rc EQUAL 2 OR at EQUAL -1 OR NOT out STREQUAL "")
        message(SEND_ERROR "velacam_demo ${arguments}: exit ${rc}, expected 2 and "
                           "\"velacam_demo: ${expected}\" on standard error; got:\n${err}${out}")
        math(EXPR failures "${failures} + 1")
    endif()
endforeach()
if(failures)
    message(FATAL_ERROR "${failures} bad argument(s) not refused as expected")
endif()
