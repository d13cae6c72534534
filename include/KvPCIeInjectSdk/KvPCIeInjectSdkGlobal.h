/// \file
/// Export macro and version of the KvPCIeInjectSdk library.
#pragma once

#include <KvPCIeInjectSdk/KvPCIeInjectSdkVersion.h>

/// KVPCIE_BUILDING_LIBRARY is defined while the library itself is compiled; KVPCIE_STATIC when
/// its layers are linked straight into a program (the library's own tests, cross builds).
#if defined(KVPCIE_STATIC)
#define KVPCIE_EXPORT
#elif defined(_WIN32)
#if defined(KVPCIE_BUILDING_LIBRARY)
#define KVPCIE_EXPORT __declspec(dllexport)
#else
#define KVPCIE_EXPORT __declspec(dllimport)
#endif
#else
#define KVPCIE_EXPORT __attribute__((visibility("default")))
#endif
