// What a fuzzer does about a call that went wrong.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace fuzz {

// Ends the run with a message.
[[noreturn, gnu::format(printf, 1, 2)]] inline void wrong(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  std::vfprintf(stderr, format, arguments);
  va_end(arguments);
  std::fputc('\n', stderr);
  std::abort();
}

}  // namespace fuzz
