#pragma once

// FaceNumbers: tells the faces of one frame from those of the next. The detector's rectangles have
// no names; here each gets a number that it keeps as long as its rectangles overlap from frame to
// frame, also over a gap of up to a second.

#include <cstdint>
#include <span>
#include <vector>

#include "modules/face_detection/host_interface.h"

namespace tavro::host {

class FaceNumbers {
 public:
  using FaceRect = TavroRTC::FDModule::FaceRect;

  struct Lost {
    int64_t number = 0;
    FaceRect face;
    double lastSeen = 0.0;  ///< seconds
  };

  /// The numbers of the frame's faces, in their order. They count from 1 and are never used again.
  /// `time` is the frame's, in seconds. They are good until the next call. May throw
  /// std::bad_alloc.
  TAVRO_HOST_API std::span<const int64_t> update(std::span<const FaceRect> faces, double time);

  /// The faces that were there within the last second and aren't now, each where it was last.
  std::span<const Lost> lost() const { return lost_; }

  /// Forgets the faces, not how far it has counted: all that come are new ones.
  TAVRO_HOST_API void forget();

 private:
  std::vector<Lost> present_;
  std::vector<Lost> lost_;
  std::vector<int64_t> numbers_;
  int64_t count_ = 0;
};

}  // namespace tavro::host
