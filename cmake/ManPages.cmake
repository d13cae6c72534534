# Manual pages of the tools (man 1 kvpcie ...), made by help2man from each program's --help when
# KVPCIE_BUILD_MAN_PAGES is on, as the Debian packages' build turns it on (Debian: help2man).
# The programs run at build time, so a cross build cannot make them.
option(KVPCIE_BUILD_MAN_PAGES "Make and install the tools' manual pages with help2man" OFF)
if(KVPCIE_BUILD_MAN_PAGES)
    if(CMAKE_CROSSCOMPILING)
        message(FATAL_ERROR "KVPCIE_BUILD_MAN_PAGES: a cross build cannot run the tools")
    endif()
    find_program(KVPCIE_HELP2MAN help2man REQUIRED)
    find_program(KVPCIE_GZIP gzip REQUIRED)
endif()

# kvpcie_man_page(TARGET SUMMARY [COMMANDS command...]): with COMMANDS, the page also holds each
# command's own --help.
function(kvpcie_man_page target summary)
    if(NOT KVPCIE_BUILD_MAN_PAGES)
        return()
    endif()
    cmake_parse_arguments(PARSE_ARGV 2 page "" "" COMMANDS)
    set(page ${CMAKE_CURRENT_BINARY_DIR}/${target}.1)
    set(include_args)
    set(include_commands)
    if(page_COMMANDS)
        set(include ${CMAKE_CURRENT_BINARY_DIR}/${target}-commands.h2m)
        list(JOIN page_COMMANDS "," commands)
        set(include_args --include=${include})
        set(include_commands COMMAND ${CMAKE_COMMAND} -DPROGRAM=$<TARGET_FILE:${target}>
            -DCOMMANDS=${commands} -DOUTPUT=${include}
            -P ${PROJECT_SOURCE_DIR}/cmake/CommandsManSection.cmake)
    endif()
    # The viewer answers --help without a display; offscreen keeps Qt from looking for one.
    add_custom_command(OUTPUT ${page}.gz
        ${include_commands}
        COMMAND ${CMAKE_COMMAND} -E env QT_QPA_PLATFORM=offscreen
                ${KVPCIE_HELP2MAN} --no-info --no-discard-stderr
                "--version-string=${PROJECT_VERSION}" "--name=${summary}" ${include_args}
                --output=${page} $<TARGET_FILE:${target}>
        COMMAND ${KVPCIE_GZIP} -n -9 -f ${page}
        DEPENDS ${target} ${PROJECT_SOURCE_DIR}/cmake/CommandsManSection.cmake
        COMMENT "Manual page of ${target}" VERBATIM)
    add_custom_target(${target}_man_page ALL DEPENDS ${page}.gz)
    install(FILES ${page}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT runtime)
endfunction()
