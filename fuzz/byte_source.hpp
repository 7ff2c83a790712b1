// What a fuzzer's input says, read from front to back. Bytes behind the end are zero, and zero is always the plain
// choice, so that a cut input still says something sensible.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <limits>

namespace fuzz {

class byte_source {
 public:
  byte_source(const uint8_t* data, size_t size) : at_(data), end_(data + size) {}

  uint8_t byte() { return at_ == end_ ? uint8_t{0} : *at_++; }
  unsigned below(unsigned n) { return byte() % n; }  // n up to 256
  bool rarely() { return byte() >= 0xE0; }           // one byte in eight
  uint64_t word(unsigned bytes = 8) {                // little-endian
    uint64_t w = 0;
    for (unsigned i = 0; i < bytes; ++i) w |= uint64_t{byte()} << (8 * i);
    return w;
  }
  template <class List>
  auto pick(const List& list) {
    return list[below(static_cast<unsigned>(std::size(list)))];
  }
  // `usual`, or now and then any number, most often one at which something overflows.
  int64_t count(int64_t usual) {
    if (!rarely()) return usual;
    constexpr int64_t most = std::numeric_limits<int64_t>::max();
    const int64_t list[] = {0,          1,          -1,   usual - 1, usual + 1, 2 * usual, 64,        1 << 20,
                            0x7FFFFFFF, 0x80000000, most, -most - 1, most / 64, -usual,    1LL << 32, 1LL << 40};
    const unsigned n = below(std::size(list) + 1);
    return n < std::size(list) ? list[n] : static_cast<int64_t>(word());
  }

 private:
  const uint8_t *at_, *end_;
};

// Contents follow from a seed in the input, so that an input stays small whatever the sizes of its tensors.
class random_bits {
 public:
  explicit random_bits(uint64_t seed) : state_(seed) {}
  uint64_t next() {  // splitmix64
    uint64_t z = state_ += 0x9E3779B97F4A7C15;
    z = (z ^ z >> 30) * 0xBF58476D1CE4E5B9;
    z = (z ^ z >> 27) * 0x94D049BB133111EB;
    return z ^ z >> 31;
  }

 private:
  uint64_t state_;
};

}  // namespace fuzz
