#include "host/app/ffmpeg/rgb_conversion.h"

namespace tavro::host {

FrameHandle toRgb(const I420Frame& frame, int32_t colorMatrix) {
  const int width = frame.width();
  const int height = frame.height();
  FrameHandle rgb(av_frame_alloc());
  const ScalerHandle scaler(sws_getContext(
      width, height, AV_PIX_FMT_YUV420P, width, height, AV_PIX_FMT_RGB24,
      SWS_BICUBIC | SWS_ACCURATE_RND | SWS_FULL_CHR_H_INT, nullptr, nullptr, nullptr));
  if (rgb == nullptr || scaler == nullptr)
    return nullptr;
  rgb->format = AV_PIX_FMT_RGB24;
  rgb->width = width;
  rgb->height = height;
  if (av_frame_get_buffer(rgb.get(), 0) < 0)
    return nullptr;
  constexpr int one = 1 << 16;
  const int* matrix = sws_getCoefficients(colorMatrix);
  sws_setColorspaceDetails(scaler.get(), matrix, 0, matrix, 1, 0, one, one);
  const uint8_t* planes[4] = {frame.planeData(0), frame.planeData(1), frame.planeData(2), nullptr};
  const int strides[4] = {frame.planeStride(0), frame.planeStride(1), frame.planeStride(2), 0};
  if (sws_scale(scaler.get(), planes, strides, 0, height, rgb->data, rgb->linesize) < 0)
    return nullptr;
  return rgb;
}

}  // namespace tavro::host
