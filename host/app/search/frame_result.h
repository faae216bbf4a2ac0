#pragma once

// What the detector says about one frame.

#include <cstdint>
#include <span>

#include "host/core/face_numbers.h"
#include "modules/face_detection/host_interface.h"

namespace tavro::host {

struct FrameResult {
  int64_t frame = 0;  ///< index among the decoded frames
  double time = 0.0;  ///< seconds
  int32_t width = 0;
  int32_t height = 0;
  std::span<const TavroRTC::FDModule::FaceRect> faces = {};
  double milliseconds = 0.0;                     ///< what the detector took
  std::span<const int64_t> faceNumbers = {};     ///< of each face, from FaceNumbers
  std::span<const FaceNumbers::Lost> lost = {};  ///< faces that were here a moment ago
};

}  // namespace tavro::host
