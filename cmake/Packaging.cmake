# Packages from the installed tree (cpack in the build folder): a Debian package and a tar.gz on
# Linux, a zip on Windows. For the Debian package, configure with -DCMAKE_INSTALL_PREFIX=/usr,
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

# The libraries' own dependencies (Qt 5, GStreamer, FUSE, libc) come from dpkg-shlibdeps; what
# the Python module and the plugin need at run time besides is named here.
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "qtbase5-dev")
if(TARGET _kvpcie)
    # The module is built for one minor version of CPython.
    math(EXPR next_minor "${Python3_VERSION_MINOR} + 1")
    string(APPEND CPACK_DEBIAN_PACKAGE_DEPENDS
           ", python3 (>= 3.${Python3_VERSION_MINOR}), python3 (<< 3.${next_minor}), python3-numpy")
endif()
if(TARGET gstkvpcie)
    string(APPEND CPACK_DEBIAN_PACKAGE_DEPENDS ", gstreamer1.0-plugins-base")
endif()

# The example hosts go in as sources, each a CMake project of its own that builds against the
# installed SDK. On Windows the archive holds them and the README at its top, beside bin/ and lib/.
if(WIN32)
    set(kvpcie_docs_dir .)
else()
    set(kvpcie_docs_dir ${CMAKE_INSTALL_DOCDIR})
endif()
install(FILES README.md CHANGELOG.md DESTINATION ${kvpcie_docs_dir})
# The folder's own CMakeLists.txt only adds the examples to this tree's build.
install(DIRECTORY examples/ DESTINATION ${kvpcie_docs_dir}/examples
        REGEX "/examples/CMakeLists\\.txt$" EXCLUDE)
include(CPack)
