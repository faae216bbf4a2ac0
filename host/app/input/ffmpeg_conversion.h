#pragma once

// Converts a decoded frame of any format to what the detector expects: upright I420 in
// limited-range BT.601. Frames that are already 8-bit 4:2:0 in limited range are lent as they are,
// byte for byte; the rest goes through swscale. For YUV formats only sampling, depth and range
// change: the matrix (BT.601, BT.709) stays that of the source. The detector works mostly from
// luma, and a second rounding would cost more than it gains.

#include <optional>
#include <string>

#include "host/app/input/orientation.h"
#include "host/app/platform/ffmpeg.h"
#include "host/core/i420_frame.h"

namespace tavro::host {

class FrameConverter {
 public:
  /// The frame as an upright picture. Its planes may be those of `decoded` or of this converter: it
  /// is good as long as `decoded` is and until the next call. Empty if it fails, with the reason in
  /// `error`.
  std::optional<I420Frame> convert(const AVFrame& decoded, Orientation orientation,
                                   std::string& error);

 private:
  std::optional<I420Frame> rescaled(const AVFrame& decoded, std::string& error);
  bool preparePicture(const AVFrame& decoded);
  bool prepareScaler(const AVFrame& decoded, bool fullRange);

  ScalerHandle scaler_;
  FrameHandle picture_;  ///< written by the scaler, which stores whole vectors to aligned rows
  int width_ = 0;        ///< the scaler's source geometry
  int height_ = 0;
  int format_ = AV_PIX_FMT_NONE;
  bool fullRange_ = false;
};

}  // namespace tavro::host
