# Installs the built library into a scratch prefix, builds examples/card_info against it as a
# project of its own, and runs it on the simulated card.
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

function(run)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "${ARGN}\nfailed (${result}):\n${out}\n${err}")
    endif()
    set(last_output "${out}" PARENT_SCOPE)
endfunction()

set(config_args)
if(CONFIG)
    set(config_args --config ${CONFIG})
endif()
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix} ${config_args})
run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/examples/card_info -B ${WORK_DIR}/build
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_BUILD_TYPE=Release)
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build ${config_args})

find_program(card_info NAMES card_info PATHS ${WORK_DIR}/build ${WORK_DIR}/build/Release
             NO_DEFAULT_PATH REQUIRED)
run(${CMAKE_COMMAND} -E env KVPCIE_SIM=1 ${card_info})
foreach(expected "0x53494d31" "100000000" "round trip of 16777339 bytes: ok")
    string(FIND "${last_output}" "${expected}" at)
    if(at EQUAL -1)
        message(FATAL_ERROR "card_info did not print \"${expected}\":\n${last_output}")
    endif()
endforeach()
message(STATUS "installed package works:\n${last_output}")
