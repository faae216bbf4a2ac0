#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "host/app/annotation.h"
#include "host/app/ffmpeg/rgb_conversion.h"

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
    const FrameHandle rgb = toRgb(frame, colorMatrix_);
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
