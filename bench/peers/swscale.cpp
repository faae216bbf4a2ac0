extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/log.h>
#include <libswscale/swscale.h>
}

#include <map>
#include <memory>
#include <stdexcept>

#include "bench/network.h"
#include "bench/peers/peers.h"

namespace tavro::bench {
namespace {

class Swscale final : public ImagePeer {
 public:
  explicit Swscale(const host::I420Frame& frame)
      : context_(sws_getContext(frame.width(), frame.height(), AV_PIX_FMT_YUV420P, inputSide,
                                inputSide, AV_PIX_FMT_BGR24, SWS_BILINEAR, nullptr, nullptr,
                                nullptr)),
        height_(frame.height()),
        picture_(pictureBytes + 64) {
    if (context_ == nullptr)
      throw std::runtime_error("swscale refuses the frame");
    for (int32_t plane = 0; plane < host::planeCount; ++plane) {
      planes_[plane] = frame.planeData(plane);
      strides_[plane] = frame.planeStride(plane);
    }
  }
  ~Swscale() override { sws_freeContext(context_); }
  Swscale(const Swscale&) = delete;
  Swscale& operator=(const Swscale&) = delete;

  std::string name() const override { return "swscale"; }

  void run() override {
    uint8_t* const target[] = {picture_.data()};
    const int stride[] = {3 * inputSide};
    sws_scale(context_, planes_, strides_, 0, height_, target, stride);
  }

  std::span<const uint8_t> picture() const override {
    return std::span(picture_).first(pictureBytes);
  }

 private:
  SwsContext* context_;
  int32_t height_;
  const uint8_t* planes_[host::planeCount] = {};
  int strides_[host::planeCount] = {};
  std::vector<uint8_t> picture_;
};

using TavroRTC::FDModule::ColorOp;

struct Formats {
  AVPixelFormat from, to;
};

const std::map<ColorOp, Formats> conversions = {
    {ColorOp::Packed24ToPacked32, {AV_PIX_FMT_BGR24, AV_PIX_FMT_BGRA}},
    {ColorOp::Packed32ToPacked24, {AV_PIX_FMT_BGRA, AV_PIX_FMT_BGR24}},
    {ColorOp::Packed24ToPacked32Swapped, {AV_PIX_FMT_BGR24, AV_PIX_FMT_RGBA}},
    {ColorOp::Bgr24ToLuma, {AV_PIX_FMT_BGR24, AV_PIX_FMT_GRAY8}},
    {ColorOp::Rgb24ToLuma, {AV_PIX_FMT_RGB24, AV_PIX_FMT_GRAY8}},
    {ColorOp::Bgra32ToLuma, {AV_PIX_FMT_BGRA, AV_PIX_FMT_GRAY8}},
    {ColorOp::Rgba32ToLuma, {AV_PIX_FMT_RGBA, AV_PIX_FMT_GRAY8}},
    {ColorOp::Rgb24ToI420, {AV_PIX_FMT_RGB24, AV_PIX_FMT_YUV420P}},
    {ColorOp::Bgr24ToI420, {AV_PIX_FMT_BGR24, AV_PIX_FMT_YUV420P}},
    {ColorOp::Rgba32ToI420, {AV_PIX_FMT_RGBA, AV_PIX_FMT_YUV420P}},
    {ColorOp::Bgra32ToI420, {AV_PIX_FMT_BGRA, AV_PIX_FMT_YUV420P}},
    {ColorOp::Argb32ToI420, {AV_PIX_FMT_ARGB, AV_PIX_FMT_YUV420P}},
    {ColorOp::Abgr32ToI420, {AV_PIX_FMT_ABGR, AV_PIX_FMT_YUV420P}},
    {ColorOp::I420ToBgr24, {AV_PIX_FMT_YUV420P, AV_PIX_FMT_BGR24}},
    {ColorOp::I420ToRgb24, {AV_PIX_FMT_YUV420P, AV_PIX_FMT_RGB24}},
    {ColorOp::I420ToBgra32, {AV_PIX_FMT_YUV420P, AV_PIX_FMT_BGRA}},
    {ColorOp::I420ToRgba32, {AV_PIX_FMT_YUV420P, AV_PIX_FMT_RGBA}},
    {ColorOp::I420ToAbgr32, {AV_PIX_FMT_YUV420P, AV_PIX_FMT_ABGR}},
    {ColorOp::I420ToArgb32, {AV_PIX_FMT_YUV420P, AV_PIX_FMT_ARGB}},
    {ColorOp::I420ToNv21, {AV_PIX_FMT_YUV420P, AV_PIX_FMT_NV21}},
    {ColorOp::I420ToNv12, {AV_PIX_FMT_YUV420P, AV_PIX_FMT_NV12}},
    {ColorOp::Nv12ToI420, {AV_PIX_FMT_NV12, AV_PIX_FMT_YUV420P}},
    {ColorOp::Nv21ToI420, {AV_PIX_FMT_NV21, AV_PIX_FMT_YUV420P}},
};

class Picture {
 public:
  Picture(FrameSize size, AVPixelFormat format) {
    constexpr int alignment = 64;
    av_image_alloc(planes, strides, size.width, size.height, format, alignment);
  }
  ~Picture() { av_freep(static_cast<void*>(&planes[0])); }
  Picture(const Picture&) = delete;
  Picture& operator=(const Picture&) = delete;

  uint8_t* planes[4] = {};
  int strides[4] = {};
};

PictureTask makeTask(Formats formats, FrameSize from, FrameSize to) {
  av_log_set_level(AV_LOG_ERROR);  // it warns wherever it has no vector code
  const std::shared_ptr<SwsContext> context(
      sws_getContext(from.width, from.height, formats.from, to.width, to.height, formats.to,
                     SWS_BILINEAR, nullptr, nullptr, nullptr),
      sws_freeContext);
  if (context == nullptr)
    return {};
  const auto source = std::make_shared<Picture>(from, formats.from);
  const auto target = std::make_shared<Picture>(to, formats.to);
  return [=] {
    sws_scale(context.get(), source->planes, source->strides, 0, from.height, target->planes,
              target->strides);
  };
}

}  // namespace

std::unique_ptr<ImagePeer> makeSwscale(const host::I420Frame& frame) {
  return std::make_unique<Swscale>(frame);
}

PictureTask swscaleConversion(ColorOp op, FrameSize size) {
  const auto entry = conversions.find(op);
  return entry == conversions.end() ? PictureTask() : makeTask(entry->second, size, size);
}

PictureTask swscaleScale(int32_t bytesPerPixel, FrameSize from, FrameSize to) {
  const AVPixelFormat format = bytesPerPixel == 3 ? AV_PIX_FMT_BGR24 : AV_PIX_FMT_BGRA;
  return makeTask({format, format}, from, to);
}

}  // namespace tavro::bench
