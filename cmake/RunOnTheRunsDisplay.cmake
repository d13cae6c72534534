# Runs PROGRAM through EMULATOR (Wine) on the X display in DISPLAY, or says why it cannot.
if("$ENV{DISPLAY}" STREQUAL "")
    message("skipped: no X display for Wine's windows (run ctest under xvfb-run -a, as "
            "scripts/windows-check.sh does)")
    return()
endif()
execute_process(COMMAND ${EMULATOR} ${PROGRAM} RESULT_VARIABLE code)
if(NOT code EQUAL 0)
    message(FATAL_ERROR "${PROGRAM} failed (${code})")
endif()
