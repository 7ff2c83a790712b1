// One input row against a packed weight: one body for each format and element type, its sizes an argument.
#pragma once

#include "formats/reader.hpp"
#include "formats/support.hpp"
#include "linear/row_frame.hpp"

namespace corvane {

constexpr bool takes_eight_bit_input(const format_support& s) { return s.one_row.scheme == row_scheme::eight_bit; }

// What the kernel reads the input as: values of T, or 8-bit blocks (formats/q8_1.hpp).
template <int32_t Id, class T>
using one_row_input = std::conditional_t<takes_eight_bit_input(support[Id]), uint8_t, T>;

// input (state_size), weight packed (output_size, state_size), output (output_size). Refuses a state_size that the
// kernel's rules or the format's blocks do not allow. Compiled in one source a format, from instances.cpp.in.
template <int32_t Id, class T>
void launch_one_row(const kernel_launch& how, const one_row_input<Id, T>* input, const uint8_t* weight, T* output,
                    uint64_t state_size, uint64_t output_size, c10::Device device);

}  // namespace corvane
