#pragma once

// FaceIdentities: a number for every face, kept for as long as the module follows it. The module's
// rectangles bear none, but they come in the order in which the faces were found, and one that is
// followed overlaps its predecessor by at least 0.3 (intersection over union): less than that makes
// a new face of it. So a list is read beside the one before it, both from the front.

#include <cstdint>
#include <span>
#include <vector>

#include "modules/face_detection/host_interface.h"

namespace tavro::gstreamer {

using TavroRTC::FDModule::FaceRect;

struct Face {
  int32_t id = 0;  ///< from 1; never given twice between two starts of an element
  FaceRect rect;
};

class FaceIdentities {
 public:
  /// Names the rectangles of the next search.
  void update(std::span<const FaceRect> rects);
  /// All faces that come are new ones.
  void forget() { faces_.clear(); }

  const std::vector<Face>& faces() const { return faces_; }

 private:
  std::vector<Face> faces_;
  int32_t latestId_ = 0;
};

}  // namespace tavro::gstreamer
