// What becomes of operators that the device does not bring.
#pragma once

#include <ATen/core/boxing/KernelFunction.h>
#include <ATen/core/stack.h>

namespace xpu {

// Runs the CPU kernel of an operator on the memory of XPU tensors; the boxed kernel of every operator without one of
// its own.
void fallback(const c10::OperatorHandle& op, torch::jit::Stack* stack);

}  // namespace xpu
