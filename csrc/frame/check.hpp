// Framework check failures raised on behalf of a named kernel or operator, for sources that include no framework
// header.
#pragma once

#include <cstdint>
#include <string>

namespace corvane {

// Where a failure or a launch comes from: stem of the source and name of the function, as messages and profiler show
// it.
struct origin {
  const char* source;
  const char* function;
};

// Throws the framework's check failure with `where` as its place.
[[noreturn]] void fail(const origin& where, const std::string& message);

inline void check(bool holds, const origin& where, const char* message) {
  if (__builtin_expect(!holds, 0)) fail(where, message);
}

// "%d must be a multiple of %d"
void check_multiple(uint64_t value, uint64_t of, const origin& where);

// Kernels address blocks by K / block_elements in a row, so a row has to begin on a block: K that passes the kernel's
// own check but is not a multiple of the format's block is refused here, in words of its own.
void check_whole_blocks(uint64_t state_size, uint64_t block_elements, const origin& where);

}  // namespace corvane
