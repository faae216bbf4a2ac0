#include "host/image_app/picture.h"

namespace tavro::host::image {
namespace {

Size planeSize(const PlaneShape& plane, Size size) {
  using TavroRTC::FDModule::chromaSize;
  return plane.halved ? Size{chromaSize(size.width), chromaSize(size.height)} : size;
}

int64_t planeBytes(const PlaneShape& plane, Size size) {
  const Size inSamples = planeSize(plane, size);
  return int64_t{inSamples.width} * inSamples.height * plane.bytesPerPixel;
}

}  // namespace

bool isAllowed(Size size) {
  return size.width >= 1 && size.width <= maximumSide && size.height >= 1 &&
         size.height <= maximumSide && int64_t{size.width} * size.height <= maximumPixels;
}

std::string asText(Size size) {
  return std::to_string(size.width) + "x" + std::to_string(size.height);
}

int64_t byteCount(const PictureFormat& format, Size size) {
  int64_t count = 0;
  for (const PlaneShape& plane : format.planes)
    count += planeBytes(plane, size);
  return count;
}

Picture::Picture(const PictureFormat& format, Size size)
    : format_(&format), size_(size), bytes_(static_cast<size_t>(byteCount(format, size))) {}

TavroRTC::FDModule::ImageDesc Picture::desc() {
  TavroRTC::FDModule::ImageDesc desc;
  uint8_t* start = bytes_.data();
  for (int i = 0; i < 3 && format_->planes[i].bytesPerPixel != 0; ++i) {
    const PlaneShape& plane = format_->planes[i];
    const Size inSamples = planeSize(plane, size_);
    desc.planes[i] = start;
    desc.widths[i] = inSamples.width;
    desc.heights[i] = inSamples.height;
    desc.strides[i] = inSamples.width * plane.bytesPerPixel;
    start += planeBytes(plane, size_);
  }
  if (format_->scaledAs.has_value())
    desc.format = *format_->scaledAs;
  return desc;
}

}  // namespace tavro::host::image
