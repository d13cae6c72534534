# Windows builds: every program and DLL goes into one folder, bin/, with the Qt DLLs, the platform
# plugins and (for mingw-w64) the compiler's runtime DLLs beside them, so that the programs run
# on Windows or under Wine with no search path set; the install puts the same DLLs in bin/. A
# cross build may take Qt for Windows from an archive (KVPCIE_QT_MINGW_ARCHIVE), unpacked into
# the build tree.
set(KVPCIE_QT_MINGW_ARCHIVE "" CACHE FILEPATH
    "Qt 5 for x86_64-w64-mingw32 as a .tar.xz, unpacked into the build tree")
set(KVPCIE_QT_MINGW_DIR ${CMAKE_BINARY_DIR}/kvqt5-mingw)

if(KVPCIE_QT_MINGW_ARCHIVE AND NOT EXISTS ${KVPCIE_QT_MINGW_DIR}/lib/cmake/Qt5)
    if(NOT EXISTS ${KVPCIE_QT_MINGW_ARCHIVE})
        message(FATAL_ERROR "KVPCIE_QT_MINGW_ARCHIVE: no such file: ${KVPCIE_QT_MINGW_ARCHIVE}")
    endif()
    message(STATUS "Unpacking ${KVPCIE_QT_MINGW_ARCHIVE}")
    file(ARCHIVE_EXTRACT INPUT ${KVPCIE_QT_MINGW_ARCHIVE} DESTINATION ${CMAKE_BINARY_DIR})
endif()
if(EXISTS ${KVPCIE_QT_MINGW_DIR}/lib/cmake/Qt5)
    list(PREPEND CMAKE_PREFIX_PATH ${KVPCIE_QT_MINGW_DIR})
endif()

set(KVPCIE_WINDOWS_BIN ${CMAKE_BINARY_DIR}/bin)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${KVPCIE_WINDOWS_BIN})

# The compiler's runtime, shared with Qt's DLLs: one C++ runtime in the process. (MSVC's runtime
# is the system's own.)
set(KVPCIE_MINGW_RUNTIME_DLLS)
if(MINGW)
    execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=libstdc++-6.dll
                    OUTPUT_VARIABLE kvpcie_libstdcxx OUTPUT_STRIP_TRAILING_WHITESPACE)
    execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=libgcc_s_seh-1.dll
                    OUTPUT_VARIABLE kvpcie_libgcc OUTPUT_STRIP_TRAILING_WHITESPACE)
    # Debian's mingw-w64 keeps it in the sysroot, a native MinGW beside the compiler.
    get_filename_component(kvpcie_compiler_dir ${CMAKE_CXX_COMPILER} DIRECTORY)
    find_file(kvpcie_winpthread libwinpthread-1.dll
              PATHS /usr/x86_64-w64-mingw32/lib /usr/x86_64-w64-mingw32/bin ${kvpcie_compiler_dir}
              NO_CMAKE_FIND_ROOT_PATH)
    foreach(dll ${kvpcie_libstdcxx} ${kvpcie_libgcc} ${kvpcie_winpthread})
        if(NOT IS_ABSOLUTE "${dll}" OR NOT EXISTS "${dll}")
            message(FATAL_ERROR "The mingw-w64 runtime DLL ${dll} was not found")
        endif()
        list(APPEND KVPCIE_MINGW_RUNTIME_DLLS ${dll})
    endforeach()
endif()

# After find_package(Qt5): the DLLs that every program needs go beside the programs in the build
# tree and into the installed bin/, with the platform plugins below platforms/.
function(kvpcie_deploy_windows_runtime)
    get_filename_component(qt_root ${Qt5Core_DIR}/../../.. ABSOLUTE)
    set(dlls ${KVPCIE_MINGW_RUNTIME_DLLS})
    foreach(module Core Gui Widgets)
        list(APPEND dlls ${qt_root}/bin/Qt5${module}.dll)
    endforeach()
    file(COPY ${dlls} DESTINATION ${KVPCIE_WINDOWS_BIN})
    file(COPY ${qt_root}/plugins/platforms DESTINATION ${KVPCIE_WINDOWS_BIN})
    install(FILES ${dlls} DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
    install(FILES ${qt_root}/plugins/platforms/qwindows.dll
            DESTINATION ${CMAKE_INSTALL_BINDIR}/platforms COMPONENT runtime)
    set(KVPCIE_QT_ROOT ${qt_root} PARENT_SCOPE)
endfunction()
