#pragma once

// FrameReader: the pictures of a pipeline as the module reads frames. Three planes are lent as they
// lie in the buffer, with its strides and offsets; everything else goes through a scratch frame, so
// that the buffer itself is only read.

#include <gst/video/video.h>

#include <optional>

#include "host/core/i420_frame.h"

namespace tavro::gstreamer {

class FrameReader {
 public:
  /// A frame over a mapped picture, I420 or NV12; good until the picture is unmapped or the next
  /// call. Null for another format, for strides shorter than a row, and without memory.
  const host::I420Frame* read(const GstVideoFrame& picture);

 private:
  host::I420Frame* scratchFor(const GstVideoFrame& picture);

  std::optional<host::I420Frame> lent_;
  std::optional<host::I420Frame> scratch_;
};

}  // namespace tavro::gstreamer
