#pragma once

// The results as text: one JSON object per line and frame, keys always in the same order.

#include <cstdint>
#include <cstdio>
#include <span>
#include <string>

#include "modules/face_detection/host_interface.h"

namespace tavro::host {

struct FrameResult {
  int64_t frame = 0;  ///< index among the decoded frames
  double time = 0.0;  ///< seconds
  int32_t width = 0;
  int32_t height = 0;
  std::span<const TavroRTC::FDModule::FaceRect> faces = {};
  double milliseconds = 0.0;  ///< what the detector took
};

/// The object without a line ending. Times have microseconds, whatever the locale.
std::string jsonLine(const FrameResult& result);

}  // namespace tavro::host
