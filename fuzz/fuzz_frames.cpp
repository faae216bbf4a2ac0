// An instance as a host could treat it: frames of any size with any strides and missing planes,
// results that grow or refuse to grow, and preparing or making the instance anew at
// any point. The answer must be the documented one, and nothing beyond the planes may be read.

#include <memory>

#include "fuzz/byte_reader.h"
#include "host/core/face_rects.h"
#include "modules/face_detection/fd_wrapper.h"
#include "tests/support/portrait.h"

namespace {

using namespace TavroRTC::FDModule;
using tavro::fuzz::ByteReader;
using tavro::fuzz::require;

constexpr int32_t largestSide = 32768;
constexpr int64_t mostSamples = 1 << 20;
constexpr int mostSteps = 6;

int32_t drawSide(ByteReader& in) {
  const uint8_t kind = in.byte();
  if (kind < 160)
    return in.between(1, 256);
  return kind < 220 ? in.between(1, largestSide) : in.number();
}

class Frame final : public HostFrame {
 public:
  explicit Frame(ByteReader& in) : width_(drawSide(in)), height_(drawSide(in)) {
    if (isSized() && int64_t{width_} * height_ > mostSamples)
      height_ = static_cast<int32_t>(std::max<int64_t>(1, mostSamples / width_));
    strides_[0] = drawStride(width_, in);
    strides_[1] = drawStride(width_ / 2 + (in.chance(128) ? width_ % 2 : 0), in);
    const bool isPortrait = in.chance(64);
    const uint8_t missing = in.chance(32) ? in.byte() : 0;
    for (int32_t plane = 0; plane < 3; ++plane) {
      if ((missing >> plane & 1) != 0)
        continue;
      // A frame that is refused must not be read at all.
      const int32_t stride = strides_[plane == 0 ? 0 : 1];
      const int32_t planeWidth = plane == 0 ? width_ : width_ / 2 + width_ % 2;
      const int32_t planeHeight = plane == 0 ? height_ : height_ / 2 + height_ % 2;
      const bool isRead = isSized() && areStridesLong();
      sizes_[plane] = isRead ? static_cast<size_t>(stride) * static_cast<size_t>(planeHeight - 1) +
                                   static_cast<size_t>(planeWidth)
                             : 0;
      planes_[plane].reset(new uint8_t[sizes_[plane]]);
      tavro::fuzz::fill(planes_[plane].get(), sizes_[plane], in);
      if (isPortrait && isRead)
        paint(plane, stride, planeWidth, planeHeight);
    }
  }

  bool isAcceptable() const {
    return isSized() && areStridesLong() && planes_[0] != nullptr && planes_[1] != nullptr &&
           planes_[2] != nullptr;
  }

  const uint8_t* planeData(int32_t plane) const override {
    return plane >= 0 && plane < 3 ? planes_[plane].get() : nullptr;
  }
  int32_t planeStride(int32_t plane) const override { return strides_[plane == 0 ? 0 : 1]; }
  int32_t width() const override { return width_; }
  int32_t height() const override { return height_; }

 private:
  int32_t drawStride(int32_t row, ByteReader& in) const {
    const uint8_t kind = in.byte();
    const int32_t any = kind < 200 ? row : in.number();
    const int64_t stride = kind < 100 ? row : int64_t{any} + (kind < 200 ? in.between(0, 40) : 0);
    // A stride that would need more memory than there is for this.
    if (stride * std::max(height_, 1) > 4 * mostSamples || stride > INT32_MAX)
      return row;
    return static_cast<int32_t>(stride);
  }
  bool isSized() const {
    return width_ >= 1 && width_ <= largestSide && height_ >= 1 && height_ <= largestSide;
  }
  bool areStridesLong() const { return strides_[0] >= width_ && strides_[1] >= width_ / 2; }
  void paint(int32_t plane, int32_t stride, int32_t planeWidth, int32_t planeHeight) {
    static const tavro::test::Portrait portrait;
    for (int64_t y = 0; y < planeHeight; ++y)
      for (int64_t x = 0; x < planeWidth; ++x)
        planes_[plane][static_cast<size_t>(y * stride + x)] =
            portrait.at(plane, x, y, planeWidth, planeHeight);
  }

  int32_t width_;
  int32_t height_;
  int32_t strides_[2];
  size_t sizes_[3] = {};
  std::unique_ptr<uint8_t[]> planes_[3];
};

/// The host's result: room for a few faces, junk as its size, and a `grow` that may refuse or not
/// be there. True if there can always be room.
bool prepareResult(FaceRectSequence& result, ByteReader& in) {
  const bool grows = !in.chance(96);
  result.grow(&result, in.between(0, 8));
  result.size = in.number();
  if (!grows)
    result.grow = [](FaceRectSequence*, int32_t) { return false; };
  if (in.chance(16))
    result.grow = nullptr;
  return grows && result.grow != nullptr;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool isQuiet = std::freopen("/dev/null", "w", stdout) != nullptr;
  require(isQuiet, "the standard output can be closed");
  ByteReader in(data, size);
  auto wrapper = std::make_unique<FDWrapper>();
  bool isReady = false;
  for (int step = 0; step < mostSteps && !in.isEmpty(); ++step) {
    const uint8_t kind = in.byte();
    if (kind < 24) {
      wrapper = std::make_unique<FDWrapper>();
      isReady = false;
    }
    if (kind < 64) {
      isReady = wrapper->init();
      require(isReady, "init");
    }
    tavro::host::FaceRects faces;
    FaceRectSequence& result = *faces.sequence();
    const bool hasRoom = prepareResult(result, in);
    const Frame frame(in);
    if (kind == 255) {
      require(!wrapper->execute(nullptr, &result), "no frame");
      require(!wrapper->execute(&frame, nullptr), "no result");
      continue;
    }
    const bool found = wrapper->execute(&frame, &result);
    require(found ? result.size >= 0 && result.size <= result.capacity : result.size == 0,
            "the result's size");
    if (!isReady || !frame.isAcceptable())
      require(!found, "an impossible frame is refused");
    else if (hasRoom)
      require(found, "a good frame is accepted");
  }
  return 0;
}
