#pragma once

#include <cstdint>

#include "modules/face_detection/host_interface.h"

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

/// The host's frame, asked once for all that there is to know.
inline FrameView viewOf(const HostFrame& frame) {
  return {.y = frame.planeData(0),
          .u = frame.planeData(1),
          .v = frame.planeData(2),
          .width = frame.width(),
          .height = frame.height(),
          .strideY = frame.planeStride(0),
          .strideUV = frame.planeStride(1)};
}

}  // namespace TavroRTC::FDModule
