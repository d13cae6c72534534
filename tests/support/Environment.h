// Setting and clearing environment variables in the suites, on POSIX and on Windows alike.
#pragma once

#include <cstdlib>

namespace kvpcie::testing {

inline void SetEnvironment(const char* name, const char* value) {
#ifdef _WIN32
    _putenv_s(name, value);
#else
    ::setenv(name, value, 1);
#endif
}

inline void UnsetEnvironment(const char* name) {
#ifdef _WIN32
    _putenv_s(name, "");  // an empty value removes the variable on Windows
#else
    ::unsetenv(name);
#endif
}

}  // namespace kvpcie::testing
