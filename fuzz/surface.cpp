// Fuzzer of the operators: the input says which operator, on which tensors, in which environment; the result is an
// answer that agrees with the reference, or an exception. The device class is that of HOST_XPU_DEVICE_NAME, one for a
// process.
#include "fuzz/surface.hpp"

#include <cstdlib>
#include <iterator>
#include <optional>

#include "platform/sycl/check_order.hpp"

// Defaults of the address sanitizer, overridden by ASAN_OPTIONS: fresh memory is not-a-numbers, so that what nobody
// wrote shows; an allocation without hope fails as it would without the sanitizer.
extern "C" const char* __asan_default_options() {  // NOLINT(bugprone-reserved-identifier): its name
  return "allocator_may_return_null=1:max_allocation_size_mb=512:quarantine_size_mb=32:malloc_fill_byte=255:"
         "max_malloc_fill_size=67108864";
}

namespace fuzz {
namespace {

struct setting {
  const char* text;  // null: not set
  bool valid;
};

void set(const char* variable, const char* text) {
  if (text == nullptr) {
    unsetenv(variable);
  } else {
    setenv(variable, text, 1);
  }
}

environment set_environment(byte_source& source) {
  static constexpr setting disabled[] = {{nullptr, true}, {"1", true}, {"1 ", true}, {"", true}, {"0", true}};
  static constexpr setting numbers[] = {{nullptr, true},
                                        {"0", true},
                                        {"1", true},
                                        {" 7x", true},
                                        {"16", true},
                                        {"-1", true},
                                        {"50000", true},
                                        {"", false},
                                        {"x", false},
                                        {"+-1", false},
                                        {"9223372036854775808", false}};
  static constexpr setting tiles[] = {{nullptr, true}, {"1", true},  {"7", true},    {"-1", true},
                                      {"4096", true},  {"0", false}, {"abc", false}, {"18446744073709551616", false}};
  environment e;
  const bool usual = !source.rarely();  // then the last of each list, which call nearly everything malformed, are out
  const auto pick = [&](const auto& list, size_t good) {
    return list[source.below(static_cast<unsigned>(usual ? good : std::size(list)))];
  };
  const unsigned closed = source.below(std::size(disabled));
  e.systolic_allowed = closed != 1;
  set("VOREL_LLM_SYSDOT_DISABLED", disabled[closed].text);
  const setting threshold = pick(numbers, 7), low_memory = pick(numbers, 7), tile = pick(tiles, 5);
  set("TILE_THRESHOLD", threshold.text);
  set("TARN_LLM_LOW_MEM", low_memory.text);
  set("TILE_SIZE", tile.text);
  e.valid = threshold.valid && low_memory.valid && tile.valid;
  return e;
}

void call(byte_source& source) {
  using operator_call = void (*)(byte_source&);
  constexpr operator_call others[] = {qkv,     qkv_bias, qk,         dequant,         bmm, mlp,
                                      rwkv_v4, rwkv_v5,  time_shift, dequantize_rows, moe};
  const unsigned number = source.below(1 + static_cast<unsigned>(std::size(others)));
  // Work-groups in a random order that follows from the input, or as they are numbered.
  const unsigned order = source.byte();
  host::set_order_check(order < 0x80 ? std::nullopt : std::optional<uint64_t>(order));
  const environment e = set_environment(source);
  if (number == 0) return forward_new(source, e);
  others[number - 1](source);
}

}  // namespace
}  // namespace fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::byte_source source(data, size);
  fuzz::call(source);
  return 0;
}
