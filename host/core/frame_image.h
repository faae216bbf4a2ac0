#pragma once

// A host's pictures as the image subsystem wants them described. The conversions only read their
// source, but one descriptor serves for both sides: a frame that borrows its planes may be the
// source alone.

#include "host/core/i420_frame.h"
#include "image/image_desc.h"

namespace tavro::host {

inline TavroRTC::FDModule::ImageDesc imageOf(const I420Frame& frame) {
  TavroRTC::FDModule::ImageDesc image;
  for (int32_t plane = 0; plane < planeCount; ++plane) {
    image.planes[plane] = const_cast<uint8_t*>(frame.planeData(plane));
    image.widths[plane] = frame.planeWidth(plane);
    image.heights[plane] = frame.planeHeight(plane);
    image.strides[plane] = frame.planeStride(plane);
  }
  image.format = TavroRTC::FDModule::ImageFormat::I420;
  return image;
}

/// Packed pixels; `stride` in bytes.
inline TavroRTC::FDModule::ImageDesc packedImage(const uint8_t* pixels, int32_t stride,
                                                 int32_t width, int32_t height,
                                                 TavroRTC::FDModule::ImageFormat format) {
  TavroRTC::FDModule::ImageDesc image;
  image.planes[0] = const_cast<uint8_t*>(pixels);
  image.widths[0] = width;
  image.heights[0] = height;
  image.strides[0] = stride;
  image.format = format;
  return image;
}

}  // namespace tavro::host
