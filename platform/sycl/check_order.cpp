#include "platform/sycl/check_order.hpp"

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <numeric>
#include <random>
#include <string_view>

namespace host {
namespace {

std::uint64_t check_seed = 0;
std::atomic<std::uint64_t> launches{0};

// Mixed, so that neighbouring numbers give unrelated seeds.
std::uint64_t derive_seed(std::uint64_t seed, std::uint64_t number) {
  std::uint64_t x = seed + (number + 1) * 0x9E3779B97F4A7C15;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EB;
  return x ^ (x >> 31);
}

struct item_orders {
  std::mt19937_64 random;
  std::vector<std::uint32_t> order;
};

item_orders& of_this_thread() {
  thread_local item_orders orders;
  return orders;
}

[[maybe_unused]] const bool read_at_load = [] {
  const char* text = std::getenv("HOST_XPU_CHECK_ORDER");
  if (text == nullptr || *text == '\0') return false;
  set_order_check(std::hash<std::string_view>{}(text));
  return true;
}();

}  // namespace

constinit std::atomic<bool> detail::order_check_is_on{false};

void set_order_check(std::optional<std::uint64_t> seed) {
  check_seed = seed.value_or(0);
  launches = 0;
  detail::order_check_is_on = seed.has_value();
}

void launch_order::draw(std::size_t groups) {
  seed_ = derive_seed(check_seed, launches++);
  order_.resize(groups);
  std::iota(order_.begin(), order_.end(), std::size_t{0});
  std::shuffle(order_.begin(), order_.end(), std::mt19937_64(seed_));
}

std::size_t launch_order::start_drawn_group(std::size_t i) const {
  const std::size_t group = order_[i];
  of_this_thread().random.seed(derive_seed(seed_, group));
  return group;
}

const std::uint32_t* item_order(std::size_t items) {
  auto& [random, order] = of_this_thread();
  order.resize(items);
  std::iota(order.begin(), order.end(), 0u);
  std::shuffle(order.begin(), order.end(), random);
  return order.data();
}

}  // namespace host
