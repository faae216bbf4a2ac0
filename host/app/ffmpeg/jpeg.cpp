#include "host/app/jpeg.h"

#include "host/app/ffmpeg/rgb_conversion.h"

namespace tavro::host {

namespace {

constexpr int quality = 4;  // FFmpeg's scale, from 2 to 31: good, at a quarter of the bytes of 2

/// Full-range BT.601, which a JPEG is by definition.
FrameHandle toFullRange(const I420Frame& frame, int32_t colorMatrix) {
  const FrameHandle rgb = toRgb(frame, colorMatrix);
  FrameHandle picture(av_frame_alloc());
  if (rgb == nullptr || picture == nullptr)
    return nullptr;
  const ScalerHandle scaler(sws_getContext(rgb->width, rgb->height, AV_PIX_FMT_RGB24, rgb->width,
                                           rgb->height, AV_PIX_FMT_YUV420P, SWS_BILINEAR, nullptr,
                                           nullptr, nullptr));
  picture->format = AV_PIX_FMT_YUVJ420P;
  picture->width = rgb->width;
  picture->height = rgb->height;
  if (scaler == nullptr || av_frame_get_buffer(picture.get(), 0) < 0)
    return nullptr;
  constexpr int one = 1 << 16;
  const int* matrix = sws_getCoefficients(SWS_CS_ITU601);
  sws_setColorspaceDetails(scaler.get(), matrix, 1, matrix, 1, 0, one, one);
  if (sws_scale(scaler.get(), rgb->data, rgb->linesize, 0, rgb->height, picture->data,
                picture->linesize) < 0)
    return nullptr;
  return picture;
}

}  // namespace

std::vector<uint8_t> encodeJpeg(const I420Frame& frame, int32_t colorMatrix) {
  const FrameHandle picture = toFullRange(frame, colorMatrix);
  const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_MJPEG);
  const CodecHandle encoder(codec != nullptr ? avcodec_alloc_context3(codec) : nullptr);
  const PacketHandle packet(av_packet_alloc());
  if (picture == nullptr || encoder == nullptr || packet == nullptr)
    return {};
  encoder->width = picture->width;
  encoder->height = picture->height;
  encoder->pix_fmt = AV_PIX_FMT_YUVJ420P;
  encoder->time_base = {1, 25};
  encoder->thread_count = 1;
  encoder->flags |= AV_CODEC_FLAG_QSCALE;
  encoder->global_quality = picture->quality = quality * FF_QP2LAMBDA;
  if (avcodec_open2(encoder.get(), codec, nullptr) < 0 ||
      avcodec_send_frame(encoder.get(), picture.get()) < 0 ||
      avcodec_send_frame(encoder.get(), nullptr) < 0 ||
      avcodec_receive_packet(encoder.get(), packet.get()) < 0)
    return {};
  return {packet->data, packet->data + packet->size};
}

}  // namespace tavro::host
