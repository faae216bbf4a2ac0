#pragma once

// FaceSearch: the detector, and what it says about the pictures of a stream. A mapped picture goes
// through the FrameReader into the host core's search; the rectangles that come back are numbered
// and clipped to the picture.
//
// FrameReader: the pictures of a pipeline as the module reads frames. Three planes are lent as they
// lie in the buffer, with its strides and offsets; everything else goes through a scratch frame, so
// that the buffer itself is only read.

#include <gst/video/video.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "host/core/face_cover.h"
#include "host/core/face_numbers.h"
#include "host/core/face_rects.h"
#include "host/core/frame_search.h"
#include "host/core/i420_frame.h"
#include "plugins/gstreamer/faces.h"
#include "plugins/gstreamer/shared_module.h"

namespace tavro::gstreamer {

class FrameReader {
 public:
  /// True for a mapped picture in I420 or NV12 whose rows don't overlap.
  static bool isReadable(const GstVideoFrame& picture);

  /// A frame over such a picture; good until the picture is unmapped or the next call. Null for any
  /// other, and if there is no memory.
  const host::I420Frame* read(const GstVideoFrame& picture);

 private:
  host::I420Frame* scratchFor(const GstVideoFrame& picture);

  std::optional<host::I420Frame> lent_;
  std::optional<host::I420Frame> scratch_;
};

class FaceSearch {
 public:
  /// `module` is the file, or empty for the default. Null if it fails.
  static std::unique_ptr<FaceSearch> open(const std::string& module,
                                          const host::SearchOptions& options, Failure& failure);

  /// Forgets the faces: the next picture has nothing to do with those before.
  host::Status restart();

  /// Searches a picture that is shown at `time`, in seconds. A failure has the faces of the windows
  /// that could be searched, if any.
  host::Status search(const GstVideoFrame& picture, double time);

  /// The faces of the latest search, the oldest first, each with at least one pixel in the picture.
  std::span<const Face> faces() const { return faces_; }
  /// True if they aren't those of the search before, wherever they are.
  bool hasChanged() const { return hasChanged_; }
  /// What to hide, as far as the pictures up to the latest search tell: where faces are, and where
  /// they were a third of a second before. A picture that couldn't be searched is hidden as a
  /// whole.
  std::vector<FaceRect> covers() const;

 private:
  FaceSearch() = default;
  void numberFaces(int32_t width, int32_t height, double time);

  std::vector<SharedModule> modules_;  ///< released after the search's instances
  std::unique_ptr<host::FrameSearch> search_;
  FrameReader reader_;
  host::FaceRects rects_;
  host::FaceNumbers numbers_;
  host::FaceCover cover_;
  std::vector<Face> faces_;
  bool hasChanged_ = false;
  std::optional<FaceRect> unknown_;  ///< the whole picture, if it couldn't be searched
};

}  // namespace tavro::gstreamer
