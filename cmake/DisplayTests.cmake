# A suite that needs an X server with OpenGL. On Linux it gets a virtual one of its own when
# Xvfb is installed (tests/support/with-xvfb.sh, which lets Xvfb choose a free display, so suites
# running at once never share one), else the one in DISPLAY. Under Wine all processes of a
# prefix share one desktop, which keeps the display it started with, so there the suite runs on
# the display of the whole run (scripts/windows-check.sh runs ctest under xvfb-run) and skips
# without one.
find_program(KVPCIE_XVFB Xvfb)
if(KVPCIE_XVFB)
    set(KVPCIE_XVFB_RUN ${PROJECT_SOURCE_DIR}/tests/support/with-xvfb.sh)
endif()
if(CMAKE_CROSSCOMPILING_EMULATOR AND NOT WIN32)
    # Under qemu's user-mode emulation the studio's suite takes about ten times its native time
    # (199 s alone on a quiet machine, 20-30 s natively).
    set(KVPCIE_DISPLAY_TEST_TIMEOUT 600)
elseif(CMAKE_CROSSCOMPILING_EMULATOR)
    set(KVPCIE_DISPLAY_TEST_TIMEOUT 180)
elseif(CMAKE_CXX_FLAGS MATCHES "-fsanitize=")
    # Instrumented, the studio's suite alone takes about two minutes (113 s under TSan on a
    # quiet machine, 20 s uninstrumented) and up to half as long again beside other suites.
    set(KVPCIE_DISPLAY_TEST_TIMEOUT 300)
else()
    set(KVPCIE_DISPLAY_TEST_TIMEOUT 60)
endif()
function(kvpcie_add_display_test name target)
    if(CMAKE_CROSSCOMPILING_EMULATOR)
        add_test(NAME ${name}
                 COMMAND ${CMAKE_COMMAND} "-DEMULATOR=${CMAKE_CROSSCOMPILING_EMULATOR}"
                         -DPROGRAM=$<TARGET_FILE:${target}>
                         -P ${PROJECT_SOURCE_DIR}/cmake/RunOnTheRunsDisplay.cmake)
        # Alone: each Wine process starts slowly, and this suite starts many.
        set_tests_properties(${name} PROPERTIES SKIP_REGULAR_EXPRESSION "skipped: no X display"
                                                RUN_SERIAL ON)
    elseif(KVPCIE_XVFB_RUN)
        add_test(NAME ${name} COMMAND ${KVPCIE_XVFB_RUN} -a -s "-screen 0 1280x1024x24"
                                      $<TARGET_FILE:${target}>)
    else()
        add_test(NAME ${name} COMMAND ${target})
    endif()
endfunction()
