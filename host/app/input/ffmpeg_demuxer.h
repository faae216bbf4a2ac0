#pragma once

// Opens what holds the streams of an input: for the decoder, and once more for the streams that are
// copied as they are.

#include <cstdint>
#include <memory>
#include <string>

#include "host/app/input/video_input.h"
#include "host/app/platform/ffmpeg.h"

namespace tavro::host {

struct DemuxerDeleter {
  void operator()(AVFormatContext* demuxer) const { avformat_close_input(&demuxer); }
};
using DemuxerHandle = std::unique_ptr<AVFormatContext, DemuxerDeleter>;

/// The opened input with what is known of its streams. With `canBeStopped` it ends when a stop is
/// requested. Null if it fails, with the reason in `error`.
DemuxerHandle openDemuxer(const InputRequest& request, bool canBeStopped, std::string& error);

/// When the first of its streams begins, in microseconds; 0 if that isn't known.
inline int64_t startOf(const AVFormatContext& demuxer) {
  return demuxer.start_time != AV_NOPTS_VALUE ? demuxer.start_time : 0;
}

}  // namespace tavro::host
