#pragma once

#include <pybind11/pybind11.h>

void define_row_operators(pybind11::module_& module);
