#pragma once

// One generator for every random sweep. The seed comes from TAVRO_TEST_SEED or is fixed; a failure
// prints how to run the very same case, if the test draws from a TracedRandom or puts
// `seedNote(seed)` into a SCOPED_TRACE.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>

namespace tavro::test {

inline uint64_t baseSeed() {
  const char* text = std::getenv("TAVRO_TEST_SEED");
  return text != nullptr ? std::strtoull(text, nullptr, 0) : 20261122U;
}

inline std::string seedNote(uint64_t seed) {
  return "replay with TAVRO_TEST_SEED=" + std::to_string(seed);
}

/// How many cases a random sweep runs: `full` of them, or the part of it, in percent, that
/// TAVRO_TEST_EFFORT asks for where all would take too long, as under an emulator.
inline int32_t caseCount(int32_t full) {
  const char* text = std::getenv("TAVRO_TEST_EFFORT");
  const int64_t percent = text != nullptr ? std::strtol(text, nullptr, 10) : 100;
  return static_cast<int32_t>(std::max<int64_t>(1, full * percent / 100));
}

class Random {
 public:
  explicit Random(uint64_t seed) : engine_(seed) {}

  /// A whole number from first to last, both included.
  int32_t between(int32_t first, int32_t last) {
    return std::uniform_int_distribution<int32_t>(first, last)(engine_);
  }
  float real(float low, float high) {
    return std::uniform_real_distribution<float>(low, high)(engine_);
  }
  bool chance(double probability) { return std::bernoulli_distribution(probability)(engine_); }
  uint8_t byte() { return static_cast<uint8_t>(between(0, 255)); }

 private:
  std::mt19937_64 engine_;
};

/// A failure prints its seed as long as it lives.
class TracedRandom : public Random {
 public:
  TracedRandom() : Random(baseSeed()), trace_("the seed", 0, seedNote(baseSeed())) {}

 private:
  testing::ScopedTrace trace_;
};

}  // namespace tavro::test
