# A recording made by "kvpcie capture --record" on the simulated card, read back by "raw info"
# and turned into a PNG by "raw png". TOOL and WORK_DIR; EMULATOR runs TOOL where needed.
file(REMOVE_RECURSE ${WORK_DIR})
foreach(log Capture_AllChannel Inject_AllChannel InjectReadFile)
    file(MAKE_DIRECTORY ${WORK_DIR}/Log/${log})
endforeach()
get_filename_component(tool_dir ${TOOL} DIRECTORY)
set(recordings ${tool_dir}/VideoRecord/Capture4)

function(run)
    execute_process(COMMAND ${ARGN} WORKING_DIRECTORY ${WORK_DIR}
                    RESULT_VARIABLE code OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(NOT code EQUAL 0)
        message(FATAL_ERROR "${ARGN}\nfailed (${code}):\n${out}\n${err}")
    endif()
    set(output "${out}" PARENT_SCOPE)
endfunction()

file(GLOB_RECURSE before ${recordings}/*.raw)
run(${EMULATOR} ${TOOL} --sim capture --channels 3 --frames 6 --card-timing --record --type Y8
    --width 64 --height 32)
file(GLOB_RECURSE after ${recordings}/*.raw)
list(REMOVE_ITEM after ${before} "")
list(LENGTH after made)
if(NOT made EQUAL 1)
    message(FATAL_ERROR "expected one new recording below ${recordings}, found: ${after}")
endif()
run(${EMULATOR} ${TOOL} raw info ${after})
if(NOT output MATCHES "64 x 32, 0 parameter line\\(s\\), Y8, 25 fps" OR
   NOT output MATCHES "frame\\(s\\) of 2048 bytes")
    message(FATAL_ERROR "raw info:\n${output}")
endif()
run(${EMULATOR} ${TOOL} raw png ${after} --frame 0 -o ${WORK_DIR}/frame0.png)
file(READ ${WORK_DIR}/frame0.png signature LIMIT 8 HEX)
if(NOT signature STREQUAL "89504e470d0a1a0a")
    message(FATAL_ERROR "frame0.png is not a PNG (${signature})")
endif()
file(REMOVE ${after})
