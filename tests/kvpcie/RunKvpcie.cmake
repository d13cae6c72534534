# Runs kvpcie once in a scratch directory as a user would, and checks its exit code and output.
# TOOL, WORK_DIR, ARGS ("|"-separated), CODE (expected exit code), REGEX (in stdout + stderr);
# optional ENV ("|"-separated cmake -E env arguments), MAKE_FILE ("name:bytes"), EMULATOR
# (what runs TOOL, such as Wine for a Windows build), COPY_TOOL (run a copy of TOOL in WORK_DIR,
# whose files beside the program are then the scratch directory's) and JSON_GET ("|"-separated
# path): standard output must then be one JSON document alone, whose value at that path matches
# JSON_MATCH; STDOUT: a regex that standard output, stripped, must match as a whole.
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})
foreach(log Capture_AllChannel Inject_AllChannel InjectReadFile)
    file(MAKE_DIRECTORY ${WORK_DIR}/Log/${log})
endforeach()
if(MAKE_FILE)
    string(REPLACE ":" ";" made "${MAKE_FILE}")
    list(GET made 0 name)
    list(GET made 1 bytes)
    string(REPEAT "x" ${bytes} content)
    file(WRITE ${WORK_DIR}/${name} "${content}")
endif()
if(COPY_TOOL)
    file(COPY ${TOOL} DESTINATION ${WORK_DIR})
    get_filename_component(tool_name ${TOOL} NAME)
    set(TOOL ${WORK_DIR}/${tool_name})
endif()
string(REPLACE "|" ";" args "${ARGS}")
string(REPLACE "|" ";" env "${ENV}")
execute_process(COMMAND ${CMAKE_COMMAND} -E env ${env} ${EMULATOR} ${TOOL} ${args}
                WORKING_DIRECTORY ${WORK_DIR}
                RESULT_VARIABLE code OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT code EQUAL CODE)
    message(FATAL_ERROR "kvpcie ${args}: exit code ${code}, expected ${CODE}\n${out}\n${err}")
endif()
if(NOT "${out}${err}" MATCHES "${REGEX}")
    message(FATAL_ERROR "kvpcie ${args}: output does not match \"${REGEX}\":\n${out}\n${err}")
endif()
string(STRIP "${out}" stripped_out)
if(STDOUT AND NOT "${stripped_out}" MATCHES "^${STDOUT}$")
    message(FATAL_ERROR "kvpcie ${args}: standard output is not \"${STDOUT}\" alone:\n${out}")
endif()
if(NOT CODE EQUAL 0)
    # A failure is one line on standard error, beside the library's lines about the device
    # files it opened.
    string(REGEX REPLACE "Device (base path|node): [^\n]*\n" "" own_err "${err}")
    string(REGEX MATCHALL "\n" lines "${own_err}")
    list(LENGTH lines count)
    if(NOT count EQUAL 1)
        message(FATAL_ERROR "kvpcie ${args}: expected one line on stderr, got:\n${err}")
    endif()
endif()

if(JSON_GET)
    string(REPLACE "|" ";" path "${JSON_GET}")
    string(JSON value ERROR_VARIABLE json_error GET "${out}" ${path})
    if(json_error)
        message(FATAL_ERROR "kvpcie ${args}: standard output is not one JSON document with "
                            "${JSON_GET} (${json_error}):\n${out}")
    endif()
    if(NOT "${value}" MATCHES "${JSON_MATCH}")
        message(FATAL_ERROR "kvpcie ${args}: ${JSON_GET} is \"${value}\", not \"${JSON_MATCH}\"")
    endif()
endif()
