extern "C" {
#include <libswscale/swscale.h>
}

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

}  // namespace

std::unique_ptr<ImagePeer> makeSwscale(const host::I420Frame& frame) {
  return std::make_unique<Swscale>(frame);
}

}  // namespace tavro::bench
