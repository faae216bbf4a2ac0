#pragma once

// The network a second time, as a plain and slow reading in double precision. It shares nothing
// with the engine but the file of weights: the layers are written down here once more, from the
// drawing of the network and not from the engine's table, and the places of the tensors in the file
// follow from that description.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "tests/support/portrait.h"
#include "tests/support/random.h"

namespace tavro::test {

class ReferenceNetwork {
 public:
  static constexpr int32_t side = 192;
  static constexpr size_t priorCount = 2088;

  /// Throws std::runtime_error if the file doesn't hold exactly the tensors of this network: raw
  /// floats ordered by the tensors' names, each tensor at the next multiple of 128 bytes.
  explicit ReferenceNetwork(const std::string& weightsPath);

  struct Output {
    std::vector<double> scores;  ///< two probabilities for each prior
    std::vector<double> boxes;   ///< four offsets for each prior
  };

  /// `picture`: side * side pixels of three bytes B, G, R.
  Output run(std::span<const uint8_t> picture);

 private:
  std::map<std::string, std::vector<float>> weights_;
};

// --- The comparison ---

// The pictures have 192x192 pixels of three bytes B, G, R. The plain ones put the whole network at
// one operating point, noise excites all of it, and the others have smooth shading, edges, and a
// face.

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

/// How far rounding may take an output from the reference: about twice as far as the worst of all
/// pictures was seen to stray with the present weights, which is 1e-6 and 1.8e-5. A fault in a
/// layer is far larger.
inline constexpr double scoreLimit = 2e-6;
inline constexpr double boxLimit = 4e-5;

/// Expects every value within the limit, and within `relativeError` of its size beyond that, for a
/// network whose own exponential is no better.
inline void expectAgreement(const std::string& what, const float* actual,
                            std::span<const double> expected, double limit,
                            double relativeError = 0) {
  size_t failures = 0;
  for (size_t i = 0; i < expected.size(); ++i) {
    const double allowed = limit + relativeError * std::fabs(expected[i]);
    if (!(std::fabs(actual[i] - expected[i]) <= allowed) && ++failures == 1)  // NaN fails as well
      ADD_FAILURE() << what << '[' << i << "] is " << actual[i] << " instead of " << expected[i];
  }
  EXPECT_EQ(failures, 0U) << "of " << expected.size() << " values of " << what;
}

}  // namespace tavro::test
