#pragma once

// The streams of the input besides the video that is drawn on: sound, subtitles and whatever else
// there is go into the written file packet by packet, as do the titles and chapters. The input is
// read a second time for that, beside the decoder, so it must be a file.

#include <string>
#include <vector>

#include "host/app/input/ffmpeg_demuxer.h"
#include "host/app/output/frame_sink.h"
#include "host/app/platform/ffmpeg.h"

namespace tavro::host {

class StreamCopy {
 public:
  /// Adds the streams of the format's source to `target`, whose first stream is the video, before
  /// its header is written. What can't go along is noted for warnOfOmissions(): no stream of what
  /// isn't a file, where faces are hidden no other video and no cover picture, and without
  /// `withStreams`, for a container that refuses the header because of them, no stream at all.
  void open(const SinkFormat& format, bool withStreams, AVFormatContext& target);

  bool hasStreams() const { return demuxer_ != nullptr; }

  /// Names the streams that are left out.
  void warnOfOmissions() const;

  /// Writes the packets that begin up to `seconds` from the start of the input. False if the file
  /// can't be written, with FFmpeg's code in `failure`.
  bool writeUntil(double seconds, AVFormatContext& target, int& failure);

  /// Tells how many packets the container has refused.
  void warnOfLosses() const;

 private:
  struct Route {
    int target = -1;  ///< index of the stream written; -1: none
    int64_t refused = 0;
    int64_t latest = AV_NOPTS_VALUE;  ///< decoding time, in ticks of the stream written
  };

  bool addStream(AVStream& stream, const char* obstacle, AVFormatContext& target);
  bool write(AVFormatContext& target, int& failure);
  std::string nameOf(unsigned index) const;

  DemuxerHandle demuxer_;
  PacketHandle packet_;  ///< the next one, if `hasPacket_`
  bool hasPacket_ = false;
  std::vector<Route> routes_;  ///< by the index in the input
  std::string source_;
  std::vector<std::string> omissions_;
};

}  // namespace tavro::host
