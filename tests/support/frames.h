#pragma once

// Frames whose samples a test knows.

#include <algorithm>
#include <cstdint>
#include <string>
#include <utility>

#include "host/core/i420_frame.h"
#include "tests/support/random.h"

namespace tavro::test {

/// Noise, in the gaps between rows too; the strides are those of I420Frame::allocate.
inline host::I420Frame randomFrame(Random& random, int32_t width, int32_t height,
                                   int32_t strideY = 0, int32_t strideUV = 0) {
  auto frame = host::I420Frame::allocate(width, height, strideY, strideUV);
  for (int32_t plane = 0; plane < host::planeCount; ++plane)
    std::generate_n(frame->writablePlane(plane),
                    frame->planeStride(plane) * frame->planeHeight(plane),
                    [&] { return random.byte(); });
  return std::move(*frame);
}

/// Planes of one value each.
inline host::I420Frame plainFrame(int32_t width, int32_t height, uint8_t y = 128, uint8_t u = 128,
                                  uint8_t v = 128) {
  auto frame = host::I420Frame::allocate(width, height);
  for (int32_t plane = 0; plane < host::planeCount; ++plane)
    std::fill_n(frame->writablePlane(plane), frame->planeStride(plane) * frame->planeHeight(plane),
                plane == 0   ? y
                : plane == 1 ? u
                             : v);
  return std::move(*frame);
}

/// The planes one behind the other, without gaps.
inline std::string samplesOf(const host::I420Frame& frame) {
  std::string samples;
  for (int32_t plane = 0; plane < host::planeCount; ++plane)
    for (int32_t y = 0; y < frame.planeHeight(plane); ++y)
      samples.append(reinterpret_cast<const char*>(frame.planeData(plane)) +
                         ptrdiff_t{y} * frame.planeStride(plane),
                     static_cast<size_t>(frame.planeWidth(plane)));
  return samples;
}

}  // namespace tavro::test
