#pragma once

// The pictures that are shown: a copy of the frame with the rectangles drawn, or with the faces
// hidden.

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <span>
#include <vector>

#include "host/core/face_cover.h"
#include "host/core/face_drawing.h"
#include "host/core/i420_frame.h"
#include "host/core/window_plan.h"
#include "modules/face_detection/host_interface.h"

namespace tavro::host {

/// A copy of the frame with samples of its own. Empty if there is no memory.
std::optional<I420Frame> copyOf(const I420Frame& frame);

/// A copy of the frame with the outline of every rectangle, clipped to the picture. Empty if
/// there is no memory.
std::optional<I420Frame> withRectangles(const I420Frame& frame,
                                        std::span<const TavroRTC::FDModule::FaceRect> faces);

/// Hides the face in the frame, which has samples of its own.
void hideFace(I420Frame& frame, const TavroRTC::FDModule::FaceRect& face, const HidingStyle& style);

/// Seconds of the input, without the end.
struct TimeSpan {
  double from = -std::numeric_limits<double>::infinity();
  double to = std::numeric_limits<double>::infinity();

  /// Times in the results are rounded to a millionth of a second.
  bool contains(double time) const { return time >= from - 1e-6 && time < to - 1e-6; }
};

struct TimedArea {
  Window area;
  TimeSpan when = {};
};

/// What the user wants to be hidden.
struct HidingOptions {
  bool isWanted = false;  ///< show pictures without the faces rather than with rectangles
  HidingStyle style = {};
  double delay = 1.0;  ///< seconds that pictures wait for what follows, unless in a file
  TimeSpan when = {};  ///< nothing is hidden before and after
  std::vector<TimedArea> hide = {};     ///< without a margin, as rectangles
  std::vector<TimedArea> keep = {};     ///< visible except for what `hide` names
  std::vector<int64_t> keepFaces = {};  ///< numbers of faces that stay visible
};

/// Hides the faces of one video. What has been found is told ahead of the pictures, which come one
/// by one and in the same order.
class FaceHiding {
 public:
  using FaceRect = TavroRTC::FDModule::FaceRect;

  /// The options must outlive it.
  explicit FaceHiding(const HidingOptions& options)
      : options_(options), missing_(options.keepFaces) {}

  /// What is found in the next frame: FaceCover::add.
  void add(double time, std::span<const FaceRect> faces, std::span<const int64_t> numbers);

  /// A copy of the next picture with what is to be hidden in it. If the detector has refused the
  /// frame, nothing of it is shown. Empty if there is no memory.
  std::optional<I420Frame> shown(const I420Frame& picture, double time, bool isRefused);

  /// How many seconds the latest frame came after the one of the next picture.
  double secondsAhead() const { return cover_.secondsSince(shownFrames_); }

  /// Faces that were to be kept visible and haven't been found.
  std::span<const int64_t> missing() const { return missing_; }

 private:
  const HidingOptions& options_;
  std::vector<int64_t> missing_;
  FaceCover cover_;
  size_t shownFrames_ = 0;
};

}  // namespace tavro::host
