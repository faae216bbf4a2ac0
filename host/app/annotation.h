#pragma once

// Annotated frames: a copy of the picture with the rectangles drawn, and the sinks that write such
// pictures to a file.

#include <memory>
#include <optional>
#include <span>
#include <string>

#include "host/app/ffmpeg_handles.h"
#include "host/core/i420_frame.h"

namespace tavro::host {

/// A copy of the frame with the outline of every rectangle, clipped to the picture. Nothing if
/// memory runs out.
std::optional<I420Frame> withRectangles(const I420Frame& frame,
                                        std::span<const TavroRTC::FDModule::FaceRect> faces);

/// Writes annotated pictures to one file.
class FrameSink {
 public:
  virtual ~FrameSink() = default;
  /// `time` is in seconds. False on failure, with the reason in `error`.
  virtual bool write(const I420Frame& frame, double time, std::string& error) = 0;
  /// Completes the file. Without it the file may not be playable.
  virtual bool finish(std::string& error) = 0;
};

/// What a sink has to know about its frames beside the samples.
struct SinkFormat {
  int32_t width = 0;
  int32_t height = 0;
  AVRational frameRate = {25, 1};
  AVColorSpace colorSpace = AVCOL_SPC_UNSPECIFIED;
};

/// A sink by the file's extension. Null on failure, with the reason in `error`.
std::unique_ptr<FrameSink> openSink(const std::string& path, const SinkFormat& format,
                                    std::string& error);

/// A PNG of the first frame written; later ones are ignored.
std::unique_ptr<FrameSink> openPictureSink(const std::string& path, const SinkFormat& format,
                                           std::string& error);
/// An H.264 video, or MPEG-4 where FFmpeg has no H.264 encoder. Frames of another size than the
/// first are scaled to it, and odd sizes to the next even one, as the encoders want.
std::unique_ptr<FrameSink> openVideoSink(const std::string& path, const SinkFormat& format,
                                         std::string& error);

}  // namespace tavro::host
