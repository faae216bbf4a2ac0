#pragma once

// VideoInput: an input of any kind as a sequence of upright I420 pictures in limited-range BT.601.
// A build has one of two implementations: ffmpeg_input.cpp reads whatever FFmpeg opens,
// plain_input.cpp the few formats that need no library.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/app/input/stream_damage.h"
#include "host/core/i420_frame.h"

namespace tavro::host {

struct InputRequest {
  std::string path;    ///< "-" is the standard input
  std::string format;  ///< name of the input format; empty: found out from the input
  std::vector<std::pair<std::string, std::string>> options;  ///< of that format
  bool live = false;  ///< begin with the first frame, and leave out those that come too late
};

struct FrameRate {
  int32_t numerator = 25;
  int32_t denominator = 1;

  double perSecond() const { return static_cast<double>(numerator) / denominator; }
};

/// What a player has to know about the pictures besides their samples. Codes are those of ISO/IEC
/// 23091-2; the zeros mean that it isn't known.
struct PictureTags {
  int32_t primaries = 2;
  int32_t transfer = 2;
  int32_t chromaLocation = 0;  ///< one more than the code
  int32_t pixelWidth = 0;      ///< a pixel's shape: width to height, in the upright picture
  int32_t pixelHeight = 1;
  FrameRate clock = {60000, 1};  ///< every time stamp is a whole number of its ticks
};

class VideoInput {
 public:
  /// Null if the input can't be opened or holds no video that can be decoded, with the reason in
  /// `error`.
  static std::unique_ptr<VideoInput> open(const InputRequest& request, std::string& error);
  virtual ~VideoInput() = default;
  VideoInput(const VideoInput&) = delete;
  VideoInput& operator=(const VideoInput&) = delete;

  /// Moves on to the next picture. False at the end of the input and when a stop is requested.
  virtual bool read() = 0;

  virtual int64_t expectedFrames() const = 0;  ///< 0 if unknown

  /// Of the current picture: the matrix coefficients by the code of ISO/IEC 23091-2, 2 if unknown.
  virtual int32_t colorMatrix() const = 0;

  /// Of the current picture.
  virtual PictureTags tags() const { return {}; }

  /// How many streams the input has besides the video.
  virtual int32_t otherStreams() const { return 0; }

  /// The picture that read() has read; good until the next read().
  const I420Frame& picture() const { return *picture_; }
  int64_t index() const { return index_; }  ///< counts from 0
  /// Seconds from the start of the input, by the frame's time stamp, or by the frame rate if it
  /// has none.
  double time() const { return time_; }
  FrameRate frameRate() const { return frameRate_; }
  const StreamDamage& damage() const { return damage_; }

 protected:
  VideoInput() = default;

  std::optional<I420Frame> picture_;
  int64_t index_ = -1;
  double time_ = 0.0;
  FrameRate frameRate_;
  StreamDamage damage_;
};

}  // namespace tavro::host
