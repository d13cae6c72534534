# Installs the built library into a scratch prefix, builds each example host against it as a
# project of its own, and runs it on the simulated card. For a cross build, TOOLCHAIN and QT_ROOT
# build the hosts the same way and EMULATOR runs them, with only the prefix's bin/ on the DLL
# search path, as a user who puts the SDK on PATH.
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
# Each example host is a project of its own, built against the installed package and run on
# the simulated card from its own folder (where the library's logs go).
function(build_and_run example)
    run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/examples/${example} -B ${WORK_DIR}/${example}
        -G ${GENERATOR} ${cross_args} -DCMAKE_PREFIX_PATH=${prefix}
        -DCMAKE_BUILD_TYPE=Release)
    run(${CMAKE_COMMAND} --build ${WORK_DIR}/${example} ${config_args})
    find_program(program_${example} NAMES ${example} ${example}.exe
                 PATHS ${WORK_DIR}/${example} ${WORK_DIR}/${example}/Release
                 NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH REQUIRED)
    execute_process(COMMAND ${CMAKE_COMMAND} -E env KVPCIE_SIM=1 ${wine_path}
                            ${EMULATOR} ${program_${example}}
                    WORKING_DIRECTORY ${WORK_DIR}/${example}
                    RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "${example} failed (${result}):\n${out}\n${err}")
    endif()
    set(last_output "${out}" PARENT_SCOPE)
endfunction()

set(cross_args)
set(wine_path)
if(TOOLCHAIN)
    set(cross_args -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN} -DQt5_DIR=${QT_ROOT}/lib/cmake/Qt5)
    string(REPLACE "/" "\\" windows_bin "Z:${prefix}/bin")
    set(wine_path "WINEPATH=${windows_bin}")
endif()

build_and_run(card_info)
foreach(expected "0x53494d31" "100000000" "round trip of 16777339 bytes: ok")
    string(FIND "${last_output}" "${expected}" at)
    if(at EQUAL -1)
        message(FATAL_ERROR "card_info did not print \"${expected}\":\n${last_output}")
    endif()
endforeach()
build_and_run(capture_host)
if(NOT last_output MATCHES "[1-9][0-9]* frames captured")
    message(FATAL_ERROR "capture_host:\n${last_output}")
endif()
build_and_run(inject_host)
if(NOT last_output MATCHES "[1-9][0-9]* frames queued")
    message(FATAL_ERROR "inject_host:\n${last_output}")
endif()
# The installed tool starts from the prefix with nothing set: no library path, no WINEPATH.
find_program(installed_kvpcie NAMES kvpcie kvpcie.exe PATHS ${prefix}/bin
             NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
if(installed_kvpcie)
    execute_process(COMMAND ${CMAKE_COMMAND} -E env --unset=LD_LIBRARY_PATH --unset=WINEPATH
                            ${EMULATOR} ${installed_kvpcie} --sim list
                    WORKING_DIRECTORY ${WORK_DIR}
                    RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(NOT result EQUAL 0 OR NOT out MATCHES "sim:xdma0")
        message(FATAL_ERROR "installed kvpcie --sim list failed (${result}):\n${out}\n${err}")
    endif()
endif()
message(STATUS "installed package works")
