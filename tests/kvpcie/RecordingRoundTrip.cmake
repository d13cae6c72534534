# "kvpcie capture --record --output DIR": the take below DIR, read back by "raw info" and
# "raw png". TOOL, WORK_DIR; EMULATOR runs TOOL where needed.
file(REMOVE_RECURSE ${WORK_DIR})
foreach(log Capture_AllChannel Inject_AllChannel InjectReadFile)
    file(MAKE_DIRECTORY ${WORK_DIR}/Log/${log})
endforeach()
set(root ${WORK_DIR}/takes)

include(${CMAKE_CURRENT_LIST_DIR}/RunInWorkDir.cmake)

run(${EMULATOR} ${TOOL} --sim capture --channels 3 --frames 6 --card-timing --record --type Y8
    --width 64 --height 32 --output takes)
# The folder is printed when the take starts and again with the counts.
if(NOT output MATCHES "ch3: recording into ([^\r\n]*)\r?\n")
    message(FATAL_ERROR "the take's folder is not printed:\n${output}")
endif()
set(printed "${CMAKE_MATCH_1}")
string(REGEX MATCH "ch3: [0-9]+ frames recorded, 0 not recorded, in ([^\r\n]*)\r?\n" counted
       "${output}")
if(NOT counted OR NOT CMAKE_MATCH_1 STREQUAL printed)
    message(FATAL_ERROR "the take's folder is not printed with the counts:\n${output}")
endif()
# Under Wine the tool prints a Windows path of the same folder: Z:\work\... is /work/...
string(REPLACE "\\" "/" take "${printed}")
string(REGEX REPLACE "^[Zz]:/" "/" take "${take}")
if(NOT take MATCHES "^${root}/Capture4/[0-9]+_[0-9]+$")
    message(FATAL_ERROR "the take ${take} is not below ${root}/Capture4")
endif()
file(GLOB made ${take}/*.raw)
list(LENGTH made count)
if(NOT count EQUAL 1)
    message(FATAL_ERROR "expected one recording in ${take}, found: ${made}")
endif()
run(${EMULATOR} ${TOOL} raw info ${made})
if(NOT output MATCHES "64 x 32, 0 parameter line\\(s\\), Y8, 25 fps" OR
   NOT output MATCHES "frame\\(s\\) of 2048 bytes")
    message(FATAL_ERROR "raw info:\n${output}")
endif()
run(${EMULATOR} ${TOOL} raw png ${made} --frame 0 -o ${WORK_DIR}/frame0.png)
file(READ ${WORK_DIR}/frame0.png signature LIMIT 8 HEX)
if(NOT signature STREQUAL "89504e470d0a1a0a")
    message(FATAL_ERROR "frame0.png is not a PNG (${signature})")
endif()
