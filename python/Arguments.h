// Checks of the arguments that several calls take, raising ValueError with what was wrong.
#pragma once

#include <pybind11/pybind11.h>

#include <string>

namespace kvpcie::python {

inline void CheckChannel(int channel) {
    if (channel < 0 || channel > 3) {
        throw pybind11::value_error("channel " + std::to_string(channel) +
                                    " is outside 0 to 3");
    }
}

}  // namespace kvpcie::python
