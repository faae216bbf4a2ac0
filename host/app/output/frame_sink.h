#pragma once

// Where the pictures that are shown are written to: one file each.

#include <cstdint>
#include <memory>
#include <string>

#include "host/app/input/video_input.h"
#include "host/core/i420_frame.h"

namespace tavro::host {

/// Writes annotated pictures to one file.
class FrameSink {
 public:
  virtual ~FrameSink() = default;
  /// `time` is in seconds. False if it fails, with the reason in `error`.
  virtual bool write(const I420Frame& frame, double time, std::string& error) = 0;
  /// Completes the file. Without it the file may not be playable.
  virtual bool finish(std::string& error) = 0;
};

/// What a sink has to know about its frames besides the samples.
struct SinkFormat {
  int32_t width = 0;
  int32_t height = 0;
  FrameRate frameRate = {};
  int32_t colorMatrix = 2;  ///< that of VideoInput
  PictureTags tags = {};
  const InputRequest* source = nullptr;  ///< whose other streams go along; null: none do
  int32_t otherStreams = 0;              ///< of the source, besides the video
  int64_t mostFrames = 0;                ///< of the source that are wanted; 0: all of them
  bool hidesFaces = false;               ///< no other picture of the source may go along
};

/// True if the name ends in `extension`, in upper or lower case.
bool hasExtension(const std::string& path, const std::string& extension);

/// A video of all frames written: ffmpeg_video_sink.cpp and plain_video_sink.cpp implement it.
std::unique_ptr<FrameSink> openVideoSink(const std::string& path, const SinkFormat& format,
                                         std::string& error);

}  // namespace tavro::host
