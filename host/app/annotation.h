#pragma once

// Annotated frames: a copy of the picture with the rectangles drawn, and the sinks that write such
// pictures to a file.

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "host/app/video_input.h"
#include "host/core/i420_frame.h"

namespace tavro::host {

/// A copy of the frame with samples of its own. Nothing if memory runs out.
std::optional<I420Frame> copyOf(const I420Frame& frame);

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
  FrameRate frameRate = {};
  int32_t colorMatrix = 2;  ///< as of VideoInput
};

/// True if the name ends in `extension`, in upper or lower case.
bool hasExtension(const std::string& path, const std::string& extension);

/// A sink by the file's extension. Null on failure, with the reason in `error`.
std::unique_ptr<FrameSink> openSink(const std::string& path, const SinkFormat& format,
                                    std::string& error);

/// A PNG of the first frame written; later ones are ignored.
std::unique_ptr<FrameSink> openPictureSink(const std::string& path, const SinkFormat& format,
                                           std::string& error);
/// A video of all frames written, in a form that the build's media folder tells.
std::unique_ptr<FrameSink> openVideoSink(const std::string& path, const SinkFormat& format,
                                         std::string& error);

}  // namespace tavro::host
