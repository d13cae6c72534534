# Writes a help2man include file whose section COMMANDS IN DETAIL holds PROGRAM's
# "PROGRAM COMMAND --help" text for each of COMMANDS (separated by commas), set as it prints
# (cmake -P).
string(REPLACE "," ";" COMMANDS "${COMMANDS}")
set(text "[COMMANDS IN DETAIL]\n.nf\n")
foreach(command ${COMMANDS})
    execute_process(COMMAND ${PROGRAM} ${command} --help RESULT_VARIABLE result
                    OUTPUT_VARIABLE help ERROR_VARIABLE help)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "${PROGRAM} ${command} --help failed (${result}):\n${help}")
    endif()
    # roff: a backslash is written doubled, and a line must not begin with a control character.
    string(REPLACE "\\" "\\\\" help "${help}")
    string(REGEX REPLACE "(^|\n)([.'])" "\\1\\\\&\\2" help "${help}")
    string(APPEND text "${help}\n")
endforeach()
string(APPEND text ".fi\n")
file(WRITE ${OUTPUT} "${text}")
