#pragma once

// The harness under every sweep over kernels: how its cases are run and repeated (`sweep`), and
// what the data is (`Content`). The memory that a kernel gets comes from guarded_buffer.h. Checks
// return AssertionResults, which name the failing place.

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <span>
#include <string>
#include <vector>

#include "tests/support/random.h"

namespace tavro::test {

/// Runs `count` cases, or until one fails. All draw from one generator, whose seed a failure
/// prints: with it as TAVRO_TEST_SEED the same cases come again.
inline testing::AssertionResult sweep(
    int32_t count, const std::function<testing::AssertionResult(Random& random, int32_t i)>& run) {
  const uint64_t seed = baseSeed();
  Random random(seed);
  for (int32_t i = 0; i < count; ++i)
    if (testing::AssertionResult result = run(random, i); !result)
      return result << "; case " << i << ", " << seedNote(seed);
  return testing::AssertionSuccess();
}

/// Random values, or those that a random draw hardly ever contains.
enum class Content : uint8_t {
  random,
  zeros,
  ones,         ///< the largest byte; 1 or -1
  alternating,  ///< the extremes in turn, which carry furthest
  large,        ///< products come near the end of the range (floats)
  tiny,         ///< products are denormal (floats)
  wild,         ///< infinities, NaNs and the largest numbers among others (floats)
};

/// Mostly random.
inline Content drawContent(Random& random, Content last) {
  return random.chance(0.6) ? Content::random
                            : static_cast<Content>(random.between(1, static_cast<int32_t>(last)));
}

inline void fill(std::span<uint8_t> values, Content content, Random& random) {
  for (size_t i = 0; i < values.size(); ++i) {
    const bool isZero =
        content == Content::zeros || (content == Content::alternating && i % 2 == 0);
    const bool isFlat = isZero || content == Content::ones || content == Content::alternating;
    values[i] = isFlat ? static_cast<uint8_t>(isZero ? 0 : 255) : random.byte();
  }
}

inline float drawFloat(Content content, size_t i, Random& random) {
  using Limits = std::numeric_limits<float>;
  constexpr float extremes[] = {Limits::infinity(),
                                -Limits::infinity(),
                                Limits::quiet_NaN(),
                                Limits::max(),
                                -Limits::max(),
                                Limits::denorm_min(),
                                -0.0F};
  const float value = random.real(-1, 1);
  switch (content) {
    case Content::zeros:
      return random.chance(0.8) ? std::copysign(0.0F, value) : value;
    case Content::ones:
      return std::copysign(1.0F, value);
    case Content::alternating:
      return i % 2 == 0 ? 1.0F : -1.0F;
    case Content::large:
      return value * 1e17F;
    case Content::tiny:
      return value * 1e-20F;
    case Content::wild:
      return random.chance(0.03) ? extremes[random.between(0, 6)] : value;
    default:
      return value;
  }
}

inline std::vector<float> drawFloats(size_t count, Random& random,
                                     Content content = Content::random) {
  std::vector<float> values(count);
  for (size_t i = 0; i < count; ++i)
    values[i] = drawFloat(content, i, random);
  return values;
}

/// Equal bit for bit, or both not a number.
inline bool sameFloat(float a, float b) {
  return (std::isnan(a) && std::isnan(b)) ||
         std::bit_cast<uint32_t>(a) == std::bit_cast<uint32_t>(b);
}

inline bool sameFloats(const std::vector<float>& a, const std::vector<float>& b) {
  return std::ranges::equal(a, b, sameFloat);
}

/// For operands that a kernel may only read.
template <typename T>
bool isUnchanged(const std::vector<T>& before, const T* now) {
  return before.empty() || std::memcmp(before.data(), now, before.size() * sizeof(T)) == 0;
}

}  // namespace tavro::test
