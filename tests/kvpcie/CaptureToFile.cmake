# "kvpcie capture -n N -o FILE" read back by "raw info", injected again from a file whose name
# says nothing, and one frame as a PGM. TOOL, WORK_DIR; EMULATOR runs TOOL where needed.
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})

include(${CMAKE_CURRENT_LIST_DIR}/RunInWorkDir.cmake)

set(named 0_64x32_ParamLine0_Fps25_Y8.raw)
run(${EMULATOR} ${TOOL} --sim capture --channels 2 -n 7 --width 64 --height 32 --type Y8
    -o ${named})
if(NOT output MATCHES "7 frame\\(s\\) written to ${named}")
    message(FATAL_ERROR "capture -o:\n${output}")
endif()
file(SIZE ${WORK_DIR}/${named} bytes)
if(NOT bytes EQUAL 14336)
    message(FATAL_ERROR "${named} has ${bytes} bytes, not 7 x 2048")
endif()
run(${EMULATOR} ${TOOL} raw info ${named})
if(NOT output MATCHES "7 frame\\(s\\) of 2048 bytes")
    message(FATAL_ERROR "raw info:\n${output}")
endif()

# A name without the format: the options give it, and override it where the name has one.
file(RENAME ${WORK_DIR}/${named} ${WORK_DIR}/frames.bin)
run(${EMULATOR} ${TOOL} --sim inject --file frames.bin --width 64 --height 32 --type Y8
    --frames 7 --rate 100)
if(NOT output MATCHES "7 frames queued in [0-9.]+ s, 7 handed to the card")
    message(FATAL_ERROR "inject of frames.bin:\n${output}")
endif()
execute_process(COMMAND ${EMULATOR} ${TOOL} --sim inject --file frames.bin --frames 1
                WORKING_DIRECTORY ${WORK_DIR} RESULT_VARIABLE code ERROR_VARIABLE err)
if(NOT code EQUAL 2 OR NOT err MATCHES "give --width, --height and --type")
    message(FATAL_ERROR "frames.bin without a format was not refused (${code}): ${err}")
endif()

run(${EMULATOR} ${TOOL} --sim capture --width 64 --height 32 --type Y16 -o frame.pgm)
file(READ ${WORK_DIR}/frame.pgm header LIMIT 15)
file(SIZE ${WORK_DIR}/frame.pgm bytes)
if(NOT header STREQUAL "P5\n64 32\n65535\n" OR NOT bytes EQUAL 4111)
    message(FATAL_ERROR "frame.pgm: ${bytes} bytes, header \"${header}\"")
endif()
