#pragma once

// Pictures for the network: 192x192 pixels of three bytes B, G, R. The plain ones put the whole
// network at one operating point, noise excites all of it, and the others have smooth shading,
// edges, and a face. Needs tavro_test_portrait.

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/portrait.h"
#include "tests/support/random.h"

namespace tavro::test {

struct TestPicture {
  std::string name;
  std::vector<uint8_t> bytes;
};

inline constexpr int32_t pictureSide = 192;

/// The picture whose sample at y, x, channel is `sample(y, x, channel)`, cut to 0 to 255.
template <typename Sample>
TestPicture makePicture(const std::string& name, Sample sample) {
  TestPicture picture{name, {}};
  for (int32_t y = 0; y < pictureSide; ++y)
    for (int32_t x = 0; x < pictureSide; ++x)
      for (int32_t channel = 0; channel < 3; ++channel)
        picture.bytes.push_back(
            static_cast<uint8_t>(std::clamp(sample(y, x, channel), 0.0, 255.0)));
  return picture;
}

inline std::vector<TestPicture> testPictures(uint64_t seed) {
  const auto plain = [](double level) {
    return makePicture("all " + std::to_string(static_cast<int>(level)),
                       [level](int32_t, int32_t, int32_t) { return level; });
  };
  Random random(seed);
  const Portrait portrait;
  return {
      plain(0),
      plain(128),
      plain(255),
      makePicture("noise", [&](int32_t, int32_t, int32_t) -> double { return random.byte(); }),
      makePicture("gradient",
                  [](int32_t y, int32_t x, int32_t channel) {
                    return channel == 0 ? x * 1.3 : channel == 1 ? y * 1.3 : (x + y) * 0.6;
                  }),
      makePicture("stripes",
                  [](int32_t y, int32_t x, int32_t channel) {
                    return (x * (channel + 1) + y) % 23 < 11 ? 20.0 : 235.0;
                  }),
      makePicture("portrait in grey",
                  [&](int32_t y, int32_t x, int32_t) -> double {
                    return portrait.at(0, x, y, pictureSide, pictureSide);
                  }),
  };
}

}  // namespace tavro::test
