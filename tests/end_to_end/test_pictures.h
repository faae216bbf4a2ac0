#pragma once

// Pictures for the network: 192x192 pixels of three bytes B, G, R. The plain ones put the whole
// network at one operating point, noise excites all of it, and the others have what faces have:
// smooth shading, edges, and blobs of several sizes.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/random.h"

namespace tavro::test {

struct TestPicture {
  std::string name;
  std::vector<uint8_t> bytes;
};

/// The picture whose sample at y, x, channel is `sample(y, x, channel)`, cut to 0 to 255.
template <typename Sample>
TestPicture makePicture(const std::string& name, Sample sample) {
  constexpr int32_t side = 192;
  TestPicture picture{name, {}};
  for (int32_t y = 0; y < side; ++y)
    for (int32_t x = 0; x < side; ++x)
      for (int32_t channel = 0; channel < 3; ++channel)
        picture.bytes.push_back(
            static_cast<uint8_t>(std::clamp(sample(y, x, channel), 0.0, 255.0)));
  return picture;
}

/// Round dark-eyed blobs of skin colour on a ground of another colour.
inline TestPicture makeBlobs(uint64_t seed) {
  struct Blob {
    double x, y, radius;
  };
  Random random(seed);
  std::vector<Blob> blobs;
  for (const float radius : {60.0F, 30.0F, 15.0F, 8.0F, 8.0F})
    blobs.push_back({random.real(10, 182), random.real(10, 182), random.real(radius / 2, radius)});
  constexpr double ground[] = {150, 120, 60};
  constexpr double skin[] = {120, 160, 220};
  return makePicture("blobs", [&](int32_t y, int32_t x, int32_t channel) {
    double value = ground[channel];
    for (const Blob& blob : blobs) {
      const double dx = (x - blob.x) / blob.radius;
      const double dy = (y - blob.y) / blob.radius;
      const double eye = std::hypot(std::fabs(dx) - 0.4, dy + 0.3);
      if (std::hypot(dx, dy) < 1)
        value = eye < 0.15 ? 30 : skin[channel] * (1 - 0.3 * dy);
    }
    return value;
  });
}

inline std::vector<TestPicture> testPictures(uint64_t seed) {
  const auto plain = [](double level) {
    return makePicture("all " + std::to_string(static_cast<int>(level)),
                       [level](int32_t, int32_t, int32_t) { return level; });
  };
  Random random(seed);
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
      makeBlobs(seed),
  };
}

}  // namespace tavro::test
