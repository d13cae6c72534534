# run(COMMAND...): runs a command in WORK_DIR and stops the script with its output unless it
# exits with 0; its standard output is left in `output`.
function(run)
    execute_process(COMMAND ${ARGN} WORKING_DIRECTORY ${WORK_DIR}
                    RESULT_VARIABLE code OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(NOT code EQUAL 0)
        message(FATAL_ERROR "${ARGN}\nfailed (${code}):\n${out}\n${err}")
    endif()
    set(output "${out}" PARENT_SCOPE)
endfunction()
