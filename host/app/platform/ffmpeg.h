#pragma once

// What reading and writing with FFmpeg's libraries have in common: owning handles, and the
// libraries' log. They would write it to the standard error in their own style; here their errors
// are counted and the latest is kept, and everything else is dropped.

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
#include <libavutil/frame.h>
#include <libswscale/swscale.h>
}

#include <cstdint>
#include <memory>
#include <string>

#include "host/core/i420_frame.h"

namespace tavro::host {

struct FfmpegDeleter {
  void operator()(AVCodecContext* codec) const { avcodec_free_context(&codec); }
  void operator()(AVFrame* frame) const { av_frame_free(&frame); }
  void operator()(AVPacket* packet) const { av_packet_free(&packet); }
  void operator()(SwsContext* scaler) const { sws_freeContext(scaler); }
};

using CodecHandle = std::unique_ptr<AVCodecContext, FfmpegDeleter>;
using FrameHandle = std::unique_ptr<AVFrame, FfmpegDeleter>;
using PacketHandle = std::unique_ptr<AVPacket, FfmpegDeleter>;
using ScalerHandle = std::unique_ptr<SwsContext, FfmpegDeleter>;

/// Options for a demuxer, muxer or codec; FFmpeg takes out what it understands.
class OptionDictionary {
 public:
  OptionDictionary() = default;
  OptionDictionary(const OptionDictionary&) = delete;
  OptionDictionary& operator=(const OptionDictionary&) = delete;
  ~OptionDictionary() { av_dict_free(&entries_); }

  void set(const std::string& key, const std::string& value) {
    av_dict_set(&entries_, key.c_str(), value.c_str(), 0);
  }
  bool has(const char* key) const { return av_dict_get(entries_, key, nullptr, 0) != nullptr; }
  AVDictionary** address() { return &entries_; }

 private:
  AVDictionary* entries_ = nullptr;
};

/// Takes the whole frame through the scaler. Returns the number of rows, or FFmpeg's error code.
inline int scaleFrame(SwsContext& scaler, const I420Frame& frame, AVFrame& target) {
  const uint8_t* planes[4] = {frame.planeData(0), frame.planeData(1), frame.planeData(2), nullptr};
  const int strides[4] = {frame.planeStride(0), frame.planeStride(1), frame.planeStride(2), 0};
  return sws_scale(&scaler, planes, strides, 0, frame.height(), target.data, target.linesize);
}

/// The text of FFmpeg's error code.
inline std::string ffmpegError(int code) {
  char text[AV_ERROR_MAX_STRING_SIZE] = "";
  av_strerror(code, text, sizeof text);
  return text;
}

/// From here on nothing of FFmpeg's reaches the standard error.
void captureFfmpegLog();

/// While it lives, what the libraries log on this thread counts for the output, and otherwise for
/// the input: encoder and decoder work at the same time, and errors of one mustn't be taken for the
/// other's.
class OutputLogScope {
 public:
  OutputLogScope();
  ~OutputLogScope();
  OutputLogScope(const OutputLogScope&) = delete;
  OutputLogScope& operator=(const OutputLogScope&) = delete;

 private:
  bool before_;
};

/// Errors logged so far for the side that this thread is on.
int64_t ffmpegErrorCount();

/// The latest of these, as one line; empty if there is none.
std::string latestFfmpegError();

/// The text of FFmpeg's error code, with the latest error logged if there has been one since
/// ffmpegErrorCount() returned `errorsBefore`.
std::string explainedError(int code, int64_t errorsBefore);

}  // namespace tavro::host
