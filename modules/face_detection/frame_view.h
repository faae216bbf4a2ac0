#pragma once

#include <cstdint>

namespace TavroRTC::FDModule {

/// One frame of 8-bit planes in 4:2:0 sampling, borrowed for a call. A chroma plane holds
/// (width + 1) / 2 by (height + 1) / 2 samples.
struct FrameView {
  const uint8_t* y = nullptr;
  const uint8_t* u = nullptr;
  const uint8_t* v = nullptr;
  int32_t width = 0;
  int32_t height = 0;
  int32_t strideY = 0;   ///< bytes from one luma row to the next
  int32_t strideUV = 0;  ///< the same for both chroma planes
};

}  // namespace TavroRTC::FDModule
