#pragma once

// VideoInput: any file, URL or device that FFmpeg opens, as a sequence of upright I420 pictures.
// Packets come out of the demuxer, frames out of the decoder (one thread, so that decoding doesn't
// disturb the detector's timing), pictures out of a FrameConverter. What is unreadable is skipped
// and noted in damage().

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/app/ffmpeg_handles.h"
#include "host/app/frame_conversion.h"
#include "host/app/stream_damage.h"

namespace tavro::host {

struct InputRequest {
  std::string path;    ///< "-" is the standard input
  std::string format;  ///< FFmpeg's name of the format; empty: found out
  std::vector<std::pair<std::string, std::string>> options;  ///< for the demuxer
};

class VideoInput {
 public:
  /// Null if the input can't be opened or holds no video that can be decoded, with the reason in
  /// `error`.
  static std::unique_ptr<VideoInput> open(const InputRequest& request, std::string& error);
  ~VideoInput();
  VideoInput(const VideoInput&) = delete;
  VideoInput& operator=(const VideoInput&) = delete;

  /// Goes on to the next picture. False at the end of the input and when a stop is requested.
  bool read();

  /// The picture that read() has found; good until the next read().
  const I420Frame& picture() const { return *picture_; }
  int64_t index() const { return index_; }  ///< counts from 0
  /// Seconds from the start of the input, by the frame's time stamp, or by the frame rate if it
  /// has none.
  double time() const { return time_; }
  AVColorSpace colorSpace() const;

  AVRational frameRate() const { return frameRate_; }
  int64_t expectedFrames() const;  ///< 0 if unknown
  const StreamDamage& damage() const { return damage_; }

 private:
  VideoInput() = default;
  bool openFormat(const InputRequest& request, std::string& error);
  bool openDecoder(std::string& error);
  Orientation streamOrientation() const;

  bool decodeFrame();
  bool feedDecoder();
  void checkForCutOff();
  bool takePicture();

  AVFormatContext* format_ = nullptr;
  AVStream* stream_ = nullptr;
  CodecHandle decoder_;
  PacketHandle packet_;
  FrameHandle frame_;
  FrameConverter converter_;
  Orientation storedOrientation_;
  AVRational frameRate_ = {25, 1};

  std::optional<I420Frame> picture_;
  int64_t index_ = -1;
  double time_ = 0.0;
  bool drained_ = false;
  int64_t lastPacketEnd_ = -1;
  StreamDamage damage_;
};

}  // namespace tavro::host
