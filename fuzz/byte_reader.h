#pragma once

// What a fuzzer is made of: a program that turns arbitrary bytes into arbitrary use of one part of
// the system and stops if it misbehaves. It is one file with the function that libFuzzer calls
// (fuzz_layers.cpp). The preset `fuzz` links it with libFuzzer; in all others replay_main.cpp feeds
// it the committed corpus as an ordinary test. Memory that the tested code may touch is allocated
// to the byte, so that the address sanitizer sees any touch beyond it.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iterator>

namespace tavro::fuzz {

/// Stops the program, as a finding, unless the condition holds.
inline void require(bool condition, const char* what) {
  if (condition)
    return;
  std::fprintf(stderr, "broken: %s\n", what);
  std::abort();
}

/// Takes values from the fuzzer's bytes, from first to last; zeros once they are used up.
class ByteReader {
 public:
  ByteReader(const uint8_t* data, size_t size) : next_(data), left_(size) {}

  bool isEmpty() const { return left_ == 0; }
  uint8_t byte() {
    if (left_ == 0)
      return 0;
    --left_;
    return *next_++;
  }
  uint32_t word() {
    uint32_t value = 0;
    for (int i = 0; i < 4; ++i)
      value = value << 8 | byte();
    return value;
  }
  /// True in `share` of 256 cases.
  bool chance(int share) { return byte() >= 256 - share; }
  /// From first to last, at most 65536 values.
  int32_t between(int32_t first, int32_t last) {
    const auto range = static_cast<uint32_t>(last - first) + 1;
    const uint32_t high = range <= 256 ? 0U : byte();
    const uint32_t value = high << 8 | byte();
    return first + static_cast<int32_t>(value % range);
  }
  /// Any number, most often one at which something could turn.
  int32_t number() {
    constexpr int32_t turns[] = {0,     1,       -1,      2,         3,        4,     7,
                                 8,     15,      16,      17,        31,       32,    33,
                                 64,    255,     256,     32767,     32768,    32769, 65535,
                                 65536, 1 << 20, 1 << 30, INT32_MAX, INT32_MIN};
    const uint8_t which = byte();
    if (which < std::size(turns))
      return turns[which];
    return which < 192 ? which - 100 : static_cast<int32_t>(word());
  }
  template <typename T, size_t count>
  T pick(const T (&values)[count]) {
    return values[static_cast<size_t>(byte()) % count];
  }

 private:
  const uint8_t* next_;
  size_t left_;
};

}  // namespace tavro::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
