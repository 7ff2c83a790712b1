#include "linear/policy.hpp"

#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <string>

#include "formats/support.hpp"

namespace corvane {
namespace {

// The standard conversion in base 10, with one form of its texts: libraries differ in how much of them they give.
template <class Number>
std::optional<Number> read_number(const char* variable, Number (*convert)(const std::string&, std::size_t*, int),
                                  const std::string& conversion) {
  const char* text = std::getenv(variable);
  if (text == nullptr) return std::nullopt;
  try {
    return convert(text, nullptr, 10);
  } catch (const std::invalid_argument&) {
    throw std::invalid_argument("invalid " + conversion + " argument");
  } catch (const std::out_of_range&) {
    throw std::out_of_range(conversion + " argument out of range");
  }
}

}  // namespace

bool systolic_allowed() {
  const char* disabled = std::getenv("VOREL_LLM_SYSDOT_DISABLED");
  return disabled == nullptr || std::string(disabled) != "1";
}

tile_policy read_tile_policy(int32_t qtype) {
  tile_policy policy;
  policy.threshold = read_number<long long>("TILE_THRESHOLD", std::stoll, "stoll").value_or(policy.threshold);
  if (support[qtype].tile.rule == tile_rule::low_memory) {
    policy.low_memory = read_number<long long>("TARN_LLM_LOW_MEM", std::stoll, "stoll").value_or(0) == 1;
  }
  policy.tile_rows = read_number<unsigned long long>("TILE_SIZE", std::stoull, "stoull").value_or(policy.tile_rows);
  return policy;
}

}  // namespace corvane
