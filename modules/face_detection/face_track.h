#pragma once

#include <array>
#include <cstdint>

#include "modules/face_detection/host_interface.h"

namespace TavroRTC::FDModule {

/// One face that is followed from frame to frame: the rectangle that the host sees and the state of
/// the filter that smooths it (one_euro_filter.h). Coordinates stand in the order of FaceRect. A
/// track has no identifier and no age; its place in the list tells it from others.
struct FaceTrack {
  static constexpr int32_t dimension = 4;
  using Coordinates = std::array<int32_t, dimension>;

  FaceTrack() = default;
  explicit FaceTrack(const FaceRect& face)
      : rect{face.left, face.top, face.right, face.bottom}, previous(rect) {}

  FaceRect faceRect() const { return {rect[0], rect[1], rect[2], rect[3]}; }

  Coordinates rect{};
  float minCutoff = 0.25F;  ///< filter: cut-off frequency at rest, per frame
  float dCutoff = 0.35F;    ///< filter: cut-off frequency of the rate of change
  float beta = 0.05F;       ///< filter: how fast the cut-off rises with the rate of change
  Coordinates previous{};   ///< filter: its last value, not always what `rect` shows
  std::array<float, dimension> derivative{};  ///< filter: smoothed rate of change, pixels per frame
};

}  // namespace TavroRTC::FDModule
