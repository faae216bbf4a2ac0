#pragma once

// I420Frame: the host's frame, three 8-bit planes Y, U, V in 4:2:0 sampling with any strides. It
// either owns its samples (allocate) or borrows planes that live elsewhere, such as a decoder's
// (borrow). Chroma planes are (n + 1) / 2 samples in both directions, so that the last column and
// row of an odd-sized picture have their chroma inside the plane.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <optional>

#include "modules/face_detection/host_interface.h"

namespace tavro::host {

inline constexpr int32_t planeCount = 3;

/// Samples of a plane along one side of a picture of `size` luma samples.
constexpr int32_t planeExtent(int32_t plane, int32_t size) {
  return plane == 0 ? size : size / 2 + size % 2;
}

class I420Frame final : public TavroRTC::FDModule::HostFrame {
 public:
  /// A frame over samples that the caller keeps alive. Empty if a plane is null, the size isn't
  /// positive, or a stride is shorter than its row.
  static std::optional<I420Frame> borrow(int32_t width, int32_t height, const uint8_t* y,
                                         int32_t strideY, const uint8_t* u, const uint8_t* v,
                                         int32_t strideUV) {
    I420Frame frame(width, height, strideY, strideUV);
    if (!frame.hasValidGeometry() || y == nullptr || u == nullptr || v == nullptr)
      return std::nullopt;
    frame.planes_[0] = y;
    frame.planes_[1] = u;
    frame.planes_[2] = v;
    return frame;
  }

  /// A frame with samples of its own, all zero, and rows without gaps unless strides are given.
  /// Empty if the geometry is refused as above or there is no memory.
  static std::optional<I420Frame> allocate(int32_t width, int32_t height, int32_t strideY = 0,
                                           int32_t strideUV = 0) {
    I420Frame frame(width, height, strideY != 0 ? strideY : width,
                    strideUV != 0 ? strideUV : planeExtent(1, width));
    if (!frame.hasValidGeometry())
      return std::nullopt;
    const size_t luma = frame.planeBytes(0);
    const size_t chroma = frame.planeBytes(1);
    frame.samples_.reset(new (std::nothrow) uint8_t[luma + 2 * chroma]());
    if (frame.samples_ == nullptr)
      return std::nullopt;
    frame.planes_[0] = frame.samples_.get();
    frame.planes_[1] = frame.planes_[0] + luma;
    frame.planes_[2] = frame.planes_[1] + chroma;
    return frame;
  }

  const uint8_t* planeData(int32_t plane) const override {
    return isPlane(plane) ? planes_[plane] : nullptr;
  }
  int32_t planeStride(int32_t plane) const override {
    return isPlane(plane) ? strides_[plane == 0 ? 0 : 1] : 0;
  }
  int32_t width() const override { return width_; }
  int32_t height() const override { return height_; }

  int32_t planeWidth(int32_t plane) const { return planeExtent(plane, width_); }
  int32_t planeHeight(int32_t plane) const { return planeExtent(plane, height_); }

  /// First sample of an owned plane, for writing; null for a borrowed one.
  uint8_t* writablePlane(int32_t plane) {
    return samples_ != nullptr && isPlane(plane) ? samples_.get() + (planes_[plane] - planes_[0])
                                                 : nullptr;
  }

 private:
  I420Frame(int32_t width, int32_t height, int32_t strideY, int32_t strideUV)
      : width_(width), height_(height), strides_{strideY, strideUV} {}

  static bool isPlane(int32_t plane) { return plane >= 0 && plane < planeCount; }

  bool hasValidGeometry() const {
    return width_ > 0 && height_ > 0 && strides_[0] >= width_ && strides_[1] >= planeWidth(1);
  }
  /// Bytes from a plane's first sample to its last row's last stride.
  size_t planeBytes(int32_t plane) const {
    return static_cast<size_t>(planeStride(plane)) * static_cast<size_t>(planeHeight(plane));
  }

  int32_t width_;
  int32_t height_;
  int32_t strides_[2];
  const uint8_t* planes_[planeCount] = {};
  std::unique_ptr<uint8_t[]> samples_;
};

}  // namespace tavro::host
