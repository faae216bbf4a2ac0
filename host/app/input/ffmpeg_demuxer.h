#pragma once

// Opens what holds the streams of an input: for the decoder, and once more for the streams that are
// copied as they are.

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

}  // namespace tavro::host
