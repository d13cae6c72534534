# Packages from the installed tree (cpack in the build folder): two Debian packages and a tar.gz on
# Linux, a zip on Windows. For the Debian packages, configure with -DCMAKE_INSTALL_PREFIX=/usr,
# so that the library and the GStreamer plugin land in the system's library folder.
set(CPACK_PACKAGE_NAME kvpcie-inject-sdk)
set(CPACK_PACKAGE_VENDOR "KvPCIeInjectSdk developers")
set(CPACK_PACKAGE_CONTACT "KvPCIeInjectSdk developers <kvpcie@example.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_RESOURCE_FILE_README ${PROJECT_SOURCE_DIR}/README.md)
set(CPACK_PACKAGE_CHECKSUM SHA256)
# Debug information stays in the build tree.
set(CPACK_STRIP_FILES ON)
if(WIN32)
    set(CPACK_GENERATOR ZIP)
else()
    set(CPACK_GENERATOR "TGZ;DEB")
endif()
# The archives hold both components; Debian gets a package for each, so that a machine that
# only runs the tools, the plugin or the Python module does not take Qt's development files.
set(CPACK_COMPONENTS_ALL runtime development)
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)

# The libraries' own dependencies (Qt 5, GStreamer, FUSE, libc) come from dpkg-shlibdeps; what
# the Python module and the plugin need at run time besides is named here, and a host's build
# needs Qt's CMake package and headers (find_dependency(Qt5) in ours).
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
# A cross build's packages are for the machine it builds for (arm64), not the one it runs on.
if(CMAKE_CROSSCOMPILING AND CMAKE_LIBRARY_ARCHITECTURE)
    execute_process(COMMAND dpkg-architecture -t ${CMAKE_LIBRARY_ARCHITECTURE} -qDEB_HOST_ARCH
                    OUTPUT_VARIABLE debian_architecture OUTPUT_STRIP_TRAILING_WHITESPACE
                    ERROR_QUIET)
    if(debian_architecture)
        set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${debian_architecture})
    endif()
endif()
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME kvpcie-inject-sdk)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION video)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME kvpcie-inject-sdk-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "qtbase5-dev")
# A shlibs file, so that packages built against the library depend on this one.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
# Apt's description under the summary (the project's description): lines within 80 columns.
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
    "KvPCIeInjectSdk drives FPGA PCI Express frame cards under the XDMA or RIFFA
driver: it captures frames by DMA, records them, injects frames for playout,
sends commands and collects status. This package holds the library, the tools
kvpcie, kvviewer and kvpcie-simd, the GStreamer plugin (kvpciesrc, kvpciesink)
and the Python module kvpcie. A simulated card is built in: kvpcie --sim
loopback runs without hardware.")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
    "Development files of KvPCIeInjectSdk: the headers, the CMake package
(find_package(KvPCIeInjectSdk)) and the example hosts, for building Qt 5 host
applications against the library.")
set(runtime_depends)
if(TARGET _kvpcie)
    # The module is built for one minor version of CPython.
    math(EXPR next_minor "${Python3_VERSION_MINOR} + 1")
    list(APPEND runtime_depends "python3 (>= 3.${Python3_VERSION_MINOR})"
         "python3 (<< 3.${next_minor})" python3-numpy)
endif()
if(TARGET gstkvpcie)
    list(APPEND runtime_depends gstreamer1.0-plugins-base)
endif()
list(JOIN runtime_depends ", " CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS)

# The example hosts go in as sources, each a CMake project of its own that builds against the
# installed SDK. On Windows the archive holds them and the README at its top, beside bin/ and lib/.
if(WIN32)
    set(kvpcie_docs_dir .)
else()
    set(kvpcie_docs_dir ${CMAKE_INSTALL_DOCDIR})
endif()
install(FILES README.md CHANGELOG.md DESTINATION ${kvpcie_docs_dir} COMPONENT runtime)
# The folder's own CMakeLists.txt only adds the examples to this tree's build.
install(DIRECTORY examples/ DESTINATION ${kvpcie_docs_dir}/examples
        COMPONENT development REGEX "/examples/CMakeLists\\.txt$" EXCLUDE)
include(CPack)
