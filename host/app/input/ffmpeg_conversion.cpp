#include "host/app/input/ffmpeg_conversion.h"

extern "C" {
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
}

#include <algorithm>
#include <array>
#include <utility>

namespace tavro::host {

namespace {

// Formats whose name says full range. Gray pictures carry no range of their own; they come from PNG
// and JPEG files, which use all values.
constexpr std::array fullRangeFormats = {
    AV_PIX_FMT_YUVJ411P, AV_PIX_FMT_YUVJ420P, AV_PIX_FMT_YUVJ422P,
    AV_PIX_FMT_YUVJ440P, AV_PIX_FMT_YUVJ444P,
};

bool isGray(AVPixelFormat format) {
  const AVPixFmtDescriptor* descriptor = av_pix_fmt_desc_get(format);
  return descriptor != nullptr && descriptor->nb_components <= 2 &&
         (descriptor->flags & (AV_PIX_FMT_FLAG_RGB | AV_PIX_FMT_FLAG_PAL)) == 0;
}

/// True if the samples span 0 to 255 rather than 16 to 235.
bool isFullRange(const AVFrame& frame) {
  const auto format = static_cast<AVPixelFormat>(frame.format);
  return frame.color_range == AVCOL_RANGE_JPEG ||
         std::find(fullRangeFormats.begin(), fullRangeFormats.end(), format) !=
             fullRangeFormats.end() ||
         (isGray(format) && frame.color_range == AVCOL_RANGE_UNSPECIFIED);
}

/// The decoder's planes as they are, if the detector can take them.
std::optional<I420Frame> lent(const AVFrame& decoded) {
  if (decoded.format != AV_PIX_FMT_YUV420P || isFullRange(decoded) ||
      decoded.linesize[1] != decoded.linesize[2])
    return std::nullopt;
  return I420Frame::borrow(decoded.width, decoded.height, decoded.data[0], decoded.linesize[0],
                           decoded.data[1], decoded.data[2], decoded.linesize[1]);
}

}  // namespace

std::optional<I420Frame> FrameConverter::convert(const AVFrame& decoded, Orientation orientation,
                                                 std::string& error) {
  auto picture = lent(decoded);
  if (!picture.has_value())
    picture = rescaled(decoded, error);
  if (!picture.has_value() || orientation.isUpright())
    return picture;
  auto upright = turnedUpright(*picture, orientation);
  if (!upright.has_value())
    error = "out of memory";
  return upright;
}

std::optional<I420Frame> FrameConverter::rescaled(const AVFrame& decoded, std::string& error) {
  const char* format = av_get_pix_fmt_name(static_cast<AVPixelFormat>(decoded.format));
  if (!preparePicture(decoded)) {
    error = "out of memory";
    return std::nullopt;
  }
  if (!prepareScaler(decoded, isFullRange(decoded))) {
    error = "pixel format " + std::string(format != nullptr ? format : "unknown") +
            " can't be converted to yuv420p";
    return std::nullopt;
  }
  const int rows = sws_scale(scaler_.get(), decoded.data, decoded.linesize, 0, decoded.height,
                             picture_->data, picture_->linesize);
  if (rows < 0) {
    error = ffmpegError(rows);
    return std::nullopt;
  }
  return lent(*picture_);
}

bool FrameConverter::preparePicture(const AVFrame& decoded) {
  if (picture_ != nullptr && picture_->width == decoded.width && picture_->height == decoded.height)
    return true;
  picture_.reset(av_frame_alloc());
  if (picture_ == nullptr)
    return false;
  picture_->width = decoded.width;
  picture_->height = decoded.height;
  picture_->format = AV_PIX_FMT_YUV420P;
  constexpr int alignment = 64;
  if (av_frame_get_buffer(picture_.get(), alignment) >= 0)
    return true;
  picture_.reset();
  return false;
}

bool FrameConverter::prepareScaler(const AVFrame& decoded, bool fullRange) {
  if (scaler_ != nullptr && width_ == decoded.width && height_ == decoded.height &&
      format_ == decoded.format && fullRange_ == fullRange)
    return true;
  scaler_.reset(sws_alloc_context());
  if (scaler_ == nullptr)
    return false;
  width_ = decoded.width;
  height_ = decoded.height;
  format_ = decoded.format;
  fullRange_ = fullRange;
  // The range has to be set before the context is made: between equal formats swscale would choose
  // a plain copy. With these flags the bytes are the same on every processor.
  const std::pair<const char*, int64_t> settings[] = {
      {"srcw", width_},
      {"srch", height_},
      {"src_format", format_},
      {"src_range", fullRange ? 1 : 0},
      {"dstw", width_},
      {"dsth", height_},
      {"dst_format", AV_PIX_FMT_YUV420P},
      {"dst_range", 0},
      {"sws_flags", SWS_BICUBIC | SWS_ACCURATE_RND | SWS_BITEXACT},
  };
  for (const auto& [name, value] : settings)
    av_opt_set_int(scaler_.get(), name, value, 0);
  if (sws_init_context(scaler_.get(), nullptr, nullptr) >= 0)
    return true;
  scaler_.reset();
  return false;
}

}  // namespace tavro::host
