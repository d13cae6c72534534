# GoogleTest for the suites: the installed package, or, when cross-building (no package for the
# target), built from Debian's sources (libgtest-dev).
# GoogleTest's discovery script is a variable of the including directory: include it in each.
include(GoogleTest)
if(TARGET GTest::gtest)
    return()
endif()
if(CMAKE_CROSSCOMPILING)
    set(gtest_force_shared_crt ON CACHE BOOL "" FORCE)
    set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
    add_subdirectory(/usr/src/googletest ${PROJECT_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
    add_library(GTest::gtest ALIAS gtest)
    add_library(GTest::gtest_main ALIAS gtest_main)
    add_library(GTest::gmock ALIAS gmock)
else()
    find_package(GTest REQUIRED)
endif()
