// Fuzzer of the environment's variables: what the policy makes of any text, against a parser of its own.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <string>

#include "fuzz/byte_source.hpp"
#include "fuzz/wrong.hpp"
#include "linear/policy.hpp"

namespace {

// White space, a sign, digits, whatever follows: sign and magnitude, or why there is none.
struct number {
  enum { none, beyond_64_bits, found } kind = none;
  bool negative = false;
  uint64_t magnitude = 0;
};

number parse(const std::string& text) {
  number n;
  size_t i = text.find_first_not_of(" \t\n\v\f\r");
  if (i == std::string::npos) return n;
  if (text[i] == '+' || text[i] == '-') n.negative = text[i++] == '-';
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
    if (n.kind == number::none) n.kind = number::found;
    const uint64_t digit = static_cast<uint64_t>(text[i] - '0');
    if (n.magnitude > (UINT64_MAX - digit) / 10) n.kind = number::beyond_64_bits;
    n.magnitude = n.magnitude * 10 + digit;
  }
  return n;
}

// The text of the exception that has to come, or none.
using failure = std::optional<std::string>;

failure expect_signed(const std::optional<std::string>& text, int64_t& value) {
  if (!text) return std::nullopt;
  const number n = parse(*text);
  if (n.kind == number::none) return "invalid stoll argument";
  const uint64_t most = n.negative ? uint64_t{1} << 63 : INT64_MAX;
  if (n.kind == number::beyond_64_bits || n.magnitude > most) return "stoll argument out of range";
  value = static_cast<int64_t>(n.negative ? 0 - n.magnitude : n.magnitude);
  return std::nullopt;
}

failure expect_unsigned(const std::optional<std::string>& text, uint64_t& value) {
  if (!text) return std::nullopt;
  const number n = parse(*text);
  if (n.kind == number::none) return "invalid stoull argument";
  if (n.kind == number::beyond_64_bits) return "stoull argument out of range";
  value = n.negative ? 0 - n.magnitude : n.magnitude;  // the standard conversion negates in the unsigned type
  return std::nullopt;
}

void put(const char* variable, const std::optional<std::string>& text) {
  if (text) {
    setenv(variable, text->c_str(), 1);
  } else {
    unsetenv(variable);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::byte_source source(data, size);
  const unsigned is_set = source.byte();
  constexpr int32_t readers[] = {2, 8, 19};
  const int32_t qtype = source.pick(readers);
  const std::string texts(reinterpret_cast<const char*>(source.rest()), source.rest_size());
  // Four texts with a ';' between them, each up to its first zero byte.
  std::optional<std::string> text[4];
  size_t from = 0;
  for (int i = 0; i < 4; ++i) {
    const size_t to = std::min(texts.find(';', from), texts.size());
    if ((is_set >> i & 1) == 0) text[i] = std::string(texts.substr(from, to - from).c_str());
    from = std::min(to + 1, texts.size());
  }
  put("VOREL_LLM_SYSDOT_DISABLED", text[0]);
  put("TILE_THRESHOLD", text[1]);
  put("TARN_LLM_LOW_MEM", text[2]);
  put("TILE_SIZE", text[3]);
  if (corvane::systolic_allowed() == (text[0] == "1")) fuzz::wrong("VOREL_LLM_SYSDOT_DISABLED was misread");

  int64_t threshold = 50000, low_memory = 0;
  uint64_t tile_rows = 4096;
  failure failed = expect_signed(text[1], threshold);
  if (!failed && qtype == 2) failed = expect_signed(text[2], low_memory);
  if (!failed) failed = expect_unsigned(text[3], tile_rows);

  failure refusal;
  bool out_of_range = false;
  corvane::tile_policy policy;
  try {
    policy = corvane::read_tile_policy(qtype);
  } catch (const std::invalid_argument& e) {
    refusal = e.what();
  } catch (const std::out_of_range& e) {
    refusal = e.what();
    out_of_range = true;
  }
  if (refusal != failed) fuzz::wrong("another refusal");
  if (failed && out_of_range != (failed->find("range") != std::string::npos)) fuzz::wrong("a refusal of another type");
  if (!failed &&
      (policy.threshold != threshold || policy.low_memory != (low_memory == 1) || policy.tile_rows != tile_rows)) {
    fuzz::wrong("another value");
  }
  return 0;
}
