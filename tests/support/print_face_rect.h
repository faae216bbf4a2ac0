#pragma once

// Lets a failed expectation print rectangles instead of bytes.

#include <ostream>

#include "modules/face_detection/host_interface.h"

namespace TavroRTC::FDModule {

inline void PrintTo(const FaceRect& rect, std::ostream* out) {
  *out << '(' << rect.left << ", " << rect.top << ", " << rect.right << ", " << rect.bottom << ')';
}

}  // namespace TavroRTC::FDModule
