#pragma once

// How much two rectangles are of the same face: what a host tells faces apart by, since the
// module's rectangles have no names.

#include <algorithm>
#include <cstdint>

#include "modules/face_detection/host_interface.h"

namespace tavro::host {

/// Intersection over union, from 0 to 1; 0 if a rectangle is empty. Any corners will do.
inline double overlap(const TavroRTC::FDModule::FaceRect& a,
                      const TavroRTC::FDModule::FaceRect& b) {
  const auto area = [](int64_t left, int64_t top, int64_t right, int64_t bottom) {
    return left < right && top < bottom
               ? static_cast<double>(right - left) * static_cast<double>(bottom - top)
               : 0.0;
  };
  const double shared = area(std::max(a.left, b.left), std::max(a.top, b.top),
                             std::min(a.right, b.right), std::min(a.bottom, b.bottom));
  if (shared == 0.0)
    return 0.0;
  return shared /
         (area(a.left, a.top, a.right, a.bottom) + area(b.left, b.top, b.right, b.bottom) - shared);
}

}  // namespace tavro::host
