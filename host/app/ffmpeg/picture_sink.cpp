#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "host/app/annotation.h"
#include "host/app/ffmpeg/ffmpeg_handles.h"

namespace tavro::host {

namespace {

class PictureSink final : public FrameSink {
 public:
  PictureSink(std::FILE* file, int32_t colorMatrix) : file_(file), colorMatrix_(colorMatrix) {}
  ~PictureSink() override {
    if (file_ != nullptr)
      std::fclose(file_);
  }
  PictureSink(const PictureSink&) = delete;
  PictureSink& operator=(const PictureSink&) = delete;

  bool write(const I420Frame& frame, double /*time*/, std::string& error) override {
    if (written_)
      return true;
    written_ = true;
    const FrameHandle rgb = toRgb(frame);
    const PacketHandle packet = rgb != nullptr ? encoded(*rgb) : nullptr;
    if (packet == nullptr) {
      error = "the picture can't be encoded";
      return false;
    }
    const auto size = static_cast<size_t>(packet->size);
    if (std::fwrite(packet->data, 1, size, file_) != size) {
      error = "the picture can't be written";
      return false;
    }
    return true;
  }

  bool finish(std::string& error) override {
    const bool closed = std::fclose(std::exchange(file_, nullptr)) == 0;
    if (!closed)
      error = "the picture can't be written";
    return closed;
  }

 private:
  FrameHandle toRgb(const I420Frame& frame) const {
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
    const int* matrix = sws_getCoefficients(colorMatrix_);
    sws_setColorspaceDetails(scaler.get(), matrix, 0, matrix, 1, 0, one, one);
    const uint8_t* planes[4] = {frame.planeData(0), frame.planeData(1), frame.planeData(2),
                                nullptr};
    const int strides[4] = {frame.planeStride(0), frame.planeStride(1), frame.planeStride(2), 0};
    if (sws_scale(scaler.get(), planes, strides, 0, height, rgb->data, rgb->linesize) < 0)
      return nullptr;
    return rgb;
  }

  static PacketHandle encoded(const AVFrame& rgb) {
    const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_PNG);
    const CodecHandle encoder(codec != nullptr ? avcodec_alloc_context3(codec) : nullptr);
    PacketHandle packet(av_packet_alloc());
    if (encoder == nullptr || packet == nullptr)
      return nullptr;
    encoder->width = rgb.width;
    encoder->height = rgb.height;
    encoder->pix_fmt = AV_PIX_FMT_RGB24;
    encoder->time_base = {1, 25};
    encoder->thread_count = 1;
    if (avcodec_open2(encoder.get(), codec, nullptr) < 0 ||
        avcodec_send_frame(encoder.get(), &rgb) < 0 ||
        avcodec_send_frame(encoder.get(), nullptr) < 0 ||
        avcodec_receive_packet(encoder.get(), packet.get()) < 0)
      return nullptr;
    return packet;
  }

  std::FILE* file_;
  int32_t colorMatrix_;
  bool written_ = false;
};

}  // namespace

std::unique_ptr<FrameSink> openPictureSink(const std::string& path, const SinkFormat& format,
                                           std::string& error) {
  std::FILE* file = std::fopen(path.c_str(), "wb");
  if (file == nullptr) {
    error = std::strerror(errno);
    return nullptr;
  }
  return std::make_unique<PictureSink>(file, format.colorMatrix);
}

}  // namespace tavro::host
