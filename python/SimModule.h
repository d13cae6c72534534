// kvpcie.sim: the binding of the simulated card's control into the module.
#pragma once

#include <pybind11/pybind11.h>

namespace kvpcie::python {

void BindSim(pybind11::module_& sim);

}  // namespace kvpcie::python
