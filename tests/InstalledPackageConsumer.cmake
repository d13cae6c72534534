# Installs the built library into a scratch prefix, builds each example host against it as a
# project of its own, and runs it on the simulated card. For a cross build, TOOLCHAIN and QT_ROOT
# build the hosts the same way and EMULATOR runs them, with only the prefix's bin/ on the DLL
# search path, as a user who puts the SDK on PATH.
#
# With PACKAGE_GENERATOR (ZIP, TGZ), the prefix is instead the package that cpack makes, unpacked
# into a folder of its own as a user would: its contents are checked, the first example is built
# from the package's own copy, and the packaged kvpcie runs the loopback main job with no search
# path set.
cmake_minimum_required(VERSION 3.18)
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
set(examples_dir ${SOURCE_DIR}/examples)
set(examples card_info capture_host inject_host c_capture)
if(PACKAGE_GENERATOR)
    set(cpack_config)
    if(CONFIG)
        set(cpack_config -C ${CONFIG})
    endif()
    run(${CPACK} -G ${PACKAGE_GENERATOR} ${cpack_config} --config ${BUILD_DIR}/CPackConfig.cmake
        -B ${WORK_DIR}/cpack)
    file(GLOB archive ${WORK_DIR}/cpack/*.zip ${WORK_DIR}/cpack/*.tar.gz)
    list(LENGTH archive archives)
    if(NOT archives EQUAL 1)
        message(FATAL_ERROR "cpack -G ${PACKAGE_GENERATOR} wrote ${archives} archives: ${archive}")
    endif()
    # A folder name with a space, as "Program Files" has.
    set(unpacked "${WORK_DIR}/unpacked here")
    file(ARCHIVE_EXTRACT INPUT ${archive} DESTINATION ${unpacked})
    file(GLOB prefix LIST_DIRECTORIES true "${unpacked}/*")
    if(TOOLCHAIN)
        set(docs "")
        set(packaged bin/KvPCIeInjectSdk.dll bin/kvpcie.exe bin/kvviewer.exe bin/Qt5Core.dll
            bin/Qt5Gui.dll bin/Qt5Widgets.dll bin/platforms/qwindows.dll bin/libstdc++-6.dll
            bin/libgcc_s_seh-1.dll bin/libwinpthread-1.dll lib/libKvPCIeInjectSdk.dll.a)
    else()
        set(docs share/doc/kvpcie-inject-sdk/)
        file(GLOB_RECURSE libraries RELATIVE "${prefix}" "${prefix}/lib*/libKvPCIeInjectSdk.so")
        set(packaged bin/kvpcie ${libraries})
    endif()
    # The .NET assembly, where the build had Mono's compiler.
    if(NET_ASSEMBLY AND TOOLCHAIN)
        list(APPEND packaged bin/KvPCIeInjectSdk.Net.dll)
    elseif(NET_ASSEMBLY)
        file(GLOB_RECURSE assemblies RELATIVE "${prefix}" "${prefix}/lib*/KvPCIeInjectSdk.Net.dll")
        if(NOT assemblies)
            message(FATAL_ERROR "The package lacks KvPCIeInjectSdk.Net.dll")
        endif()
    endif()
    list(APPEND packaged include/KvPCIeInjectSdk/PCIeDataManager.h include/KvPCIeInjectSdk/kvpcie.h
         ${docs}README.md ${docs}CHANGELOG.md ${docs}examples/card_info/CMakeLists.txt
         ${docs}examples/card_info/main.cpp)
    foreach(file ${packaged})
        if(NOT EXISTS "${prefix}/${file}")
            message(FATAL_ERROR "The package lacks ${file}")
        endif()
    endforeach()
    file(GLOB_RECURSE config RELATIVE "${prefix}" "${prefix}/*/KvPCIeInjectSdkConfig.cmake")
    if(NOT config)
        message(FATAL_ERROR "The package lacks the CMake package KvPCIeInjectSdkConfig.cmake")
    endif()
    # Every DLL that a program or DLL in bin/ imports is in bin/ or is Windows' own (as Wine
    # has it in system32): what the zip needs, it holds.
    set(system32 "$ENV{WINEPREFIX}/drive_c/windows/system32")
    if(TOOLCHAIN AND OBJDUMP AND EXISTS "${system32}")
        file(GLOB available RELATIVE "${prefix}/bin" "${prefix}/bin/*.dll")
        file(GLOB windows_dlls RELATIVE "${system32}" "${system32}/*.dll")
        list(APPEND available ${windows_dlls})
        string(TOLOWER "${available}" available)
        file(GLOB_RECURSE binaries "${prefix}/bin/*.exe" "${prefix}/bin/*.dll")
        foreach(binary ${binaries})
            run(${OBJDUMP} -p "${binary}")
            string(REGEX MATCHALL "DLL Name: [^\r\n]+" imports "${last_output}")
            foreach(import ${imports})
                string(REGEX REPLACE "^DLL Name: " "" dll "${import}")
                string(TOLOWER "${dll}" dll)
                if(NOT dll IN_LIST available)
                    message(FATAL_ERROR "${binary} imports ${dll}, which the package lacks")
                endif()
            endforeach()
        endforeach()
        list(LENGTH binaries checked)
        message(STATUS "the imports of ${checked} programs and DLLs in bin/ are all there")
    endif()
    set(examples_dir "${prefix}/${docs}examples")
    set(examples card_info c_capture)
else()
    run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix} ${config_args})
endif()
# Each example host is a project of its own, built against the installed package and run on
# the simulated card from its own folder (where the library's logs go).
function(build_and_run example)
    run(${CMAKE_COMMAND} -S ${examples_dir}/${example} -B ${WORK_DIR}/${example}
        -G ${GENERATOR} ${cross_args} "-DCMAKE_PREFIX_PATH=${prefix}"
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
# A C99 program that includes only kvpcie.h, built with -std=c99 -pedantic -Werror against the
# installed header and library.
build_and_run(c_capture)
if(NOT last_output MATCHES "[1-9][0-9]* frames captured, 0 lost")
    message(FATAL_ERROR "c_capture:\n${last_output}")
endif()
if("capture_host" IN_LIST examples)
    build_and_run(capture_host)
    if(NOT last_output MATCHES "[1-9][0-9]* frames captured")
        message(FATAL_ERROR "capture_host:\n${last_output}")
    endif()
    build_and_run(inject_host)
    if(NOT last_output MATCHES "[1-9][0-9]* frames queued")
        message(FATAL_ERROR "inject_host:\n${last_output}")
    endif()
endif()
# The installed tool starts from the prefix with nothing set: no library path, no WINEPATH.
find_program(installed_kvpcie NAMES kvpcie kvpcie.exe PATHS "${prefix}/bin"
             NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
if(installed_kvpcie)
    if(PACKAGE_GENERATOR)
        set(job loopback)
        set(expected "\nPASS\r?\n?$")
    else()
        set(job list)
        set(expected "sim:xdma0")
    endif()
    file(MAKE_DIRECTORY ${WORK_DIR}/run)
    execute_process(COMMAND ${CMAKE_COMMAND} -E env --unset=LD_LIBRARY_PATH --unset=WINEPATH
                            ${EMULATOR} ${installed_kvpcie} --sim ${job}
                    WORKING_DIRECTORY ${WORK_DIR}/run
                    RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(NOT result EQUAL 0 OR NOT out MATCHES "${expected}")
        message(FATAL_ERROR "installed kvpcie --sim ${job} failed (${result}):\n${out}\n${err}")
    endif()
    message(STATUS "kvpcie --sim ${job}:\n${out}")
elseif(PACKAGE_GENERATOR)
    message(FATAL_ERROR "The package lacks bin/kvpcie")
endif()
message(STATUS "installed package works")
