#pragma once

// What a network is given, and how its outputs are compared with the reference network's. The
// pictures have 192x192 pixels of three bytes B, G, R. The plain ones put the whole network at one
// operating point, noise excites all of it, and the others have smooth shading, edges, and a face.
// Needs tavro_test_portrait.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "tests/end_to_end/reference_network.h"
#include "tests/support/portrait.h"
#include "tests/support/random.h"

namespace tavro::test {

struct TestPicture {
  std::string name;
  std::vector<uint8_t> bytes;
};

/// The picture whose sample at y, x, channel is `sample(y, x, channel)`, cut to 0 to 255.
template <typename Sample>
TestPicture makePicture(const std::string& name, Sample sample) {
  TestPicture picture{name, {}};
  for (int32_t y = 0; y < ReferenceNetwork::side; ++y)
    for (int32_t x = 0; x < ReferenceNetwork::side; ++x)
      for (int32_t channel = 0; channel < 3; ++channel)
        picture.bytes.push_back(
            static_cast<uint8_t>(std::clamp<double>(sample(y, x, channel), 0, 255)));
  return picture;
}

inline std::vector<TestPicture> testPictures(uint64_t seed) {
  constexpr int32_t side = ReferenceNetwork::side;
  Random random(seed);
  const Portrait portrait;
  return {
      makePicture("black", [](int32_t, int32_t, int32_t) { return 0; }),
      makePicture("grey", [](int32_t, int32_t, int32_t) { return 128; }),
      makePicture("white", [](int32_t, int32_t, int32_t) { return 255; }),
      makePicture("noise", [&](int32_t, int32_t, int32_t) { return random.byte(); }),
      makePicture("gradient",
                  [](int32_t y, int32_t x, int32_t channel) {
                    return channel == 0 ? x * 1.3 : channel == 1 ? y * 1.3 : (x + y) * 0.6;
                  }),
      makePicture("stripes",
                  [](int32_t y, int32_t x, int32_t channel) {
                    return (x * (channel + 1) + y) % 23 < 11 ? 20 : 235;
                  }),
      makePicture("portrait in grey",
                  [&](int32_t y, int32_t x, int32_t) { return portrait.at(0, x, y, side, side); }),
  };
}

/// How many of the reference's deviations an output may stray: the largest of thousands of errors
/// is several times as large as the typical one, and up to 10 were seen.
inline constexpr double allowedDeviations = 24;

/// Expects every value within the allowed deviations, and within `relativeError` of the value's
/// size beyond that, for a network whose own exponential is no better.
inline void expectAgreement(const std::string& what, const float* actual,
                            std::span<const Reading> expected, double relativeError = 0) {
  size_t failures = 0;
  size_t worst = 0;
  double worstRatio = 0;
  for (size_t i = 0; i < expected.size(); ++i) {
    const auto& [value, deviation] = expected[i];
    const double allowed = allowedDeviations * deviation + relativeError * std::fabs(value);
    const double ratio = std::fabs(actual[i] - value) / allowed;
    failures += ratio <= 1 ? 0U : 1U;  // not a number fails as well
    if (!(ratio <= worstRatio)) {
      worst = i;
      worstRatio = ratio;
    }
  }
  EXPECT_EQ(failures, 0U) << "of " << expected.size() << " values of " << what << "; the worst, ["
                          << worst << "], is " << actual[worst] << " for " << expected[worst].value
                          << ", " << worstRatio << " times what is allowed";
}

}  // namespace tavro::test
