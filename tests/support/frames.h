#pragma once

// Frames whose samples a test knows, and rectangles that a failed expectation prints as such.

#include <algorithm>
#include <cstdint>
#include <ostream>
#include <utility>

#include "host/core/i420_frame.h"
#include "modules/face_detection/host_interface.h"
#include "tests/support/random.h"

namespace TavroRTC::FDModule {

inline void PrintTo(const FaceRect& rect, std::ostream* out) {
  *out << '(' << rect.left << ", " << rect.top << ", " << rect.right << ", " << rect.bottom << ')';
}

}  // namespace TavroRTC::FDModule

namespace tavro::test {

/// Noise, in the gaps between rows too.
inline host::I420Frame randomFrame(Random& random, int32_t width, int32_t height) {
  auto frame = host::I420Frame::allocate(width, height);
  for (int32_t plane = 0; plane < host::planeCount; ++plane)
    std::generate_n(frame->writablePlane(plane),
                    frame->planeStride(plane) * frame->planeHeight(plane),
                    [&] { return random.byte(); });
  return std::move(*frame);
}

/// Without colour.
inline host::I420Frame plainFrame(int32_t width, int32_t height, uint8_t luma = 128) {
  auto frame = host::I420Frame::allocate(width, height);
  for (int32_t plane = 0; plane < host::planeCount; ++plane)
    std::fill_n(frame->writablePlane(plane), frame->planeStride(plane) * frame->planeHeight(plane),
                plane == 0 ? luma : uint8_t{128});
  return std::move(*frame);
}

}  // namespace tavro::test
