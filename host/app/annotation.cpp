#include "host/app/annotation.h"

#include <algorithm>
#include <cctype>
#include <cstring>

#include "host/core/outlines.h"

namespace tavro::host {

std::optional<I420Frame> copyOf(const I420Frame& frame) {
  // The sinks hand the copy to swscale, which reads narrow rows in whole vectors.
  const auto padded = [&frame](int32_t plane) { return (frame.planeWidth(plane) + 63) / 64 * 64; };
  auto copy = I420Frame::allocate(frame.width(), frame.height(), padded(0), padded(1));
  if (!copy.has_value())
    return std::nullopt;
  for (int32_t plane = 0; plane < planeCount; ++plane)
    for (int32_t y = 0; y < frame.planeHeight(plane); ++y)
      std::memcpy(copy->writablePlane(plane) + ptrdiff_t{y} * copy->planeStride(plane),
                  frame.planeData(plane) + ptrdiff_t{y} * frame.planeStride(plane),
                  static_cast<size_t>(frame.planeWidth(plane)));
  return copy;
}

std::optional<I420Frame> withRectangles(const I420Frame& frame,
                                        std::span<const TavroRTC::FDModule::FaceRect> faces) {
  auto drawn = copyOf(frame);
  if (!drawn.has_value())
    return std::nullopt;
  Component components[planeCount];
  for (int32_t plane = 0; plane < planeCount; ++plane)
    components[plane] = {drawn->writablePlane(plane), drawn->planeStride(plane)};
  drawOutlines(components, frame.width(), frame.height(), faces);
  return drawn;
}

bool hasExtension(const std::string& path, const std::string& extension) {
  const auto sameLetter = [](char a, char b) {
    return std::tolower(static_cast<unsigned char>(a)) ==
           std::tolower(static_cast<unsigned char>(b));
  };
  return path.size() > extension.size() &&
         std::equal(extension.rbegin(), extension.rend(), path.rbegin(), sameLetter);
}

std::unique_ptr<FrameSink> openSink(const std::string& path, const SinkFormat& format,
                                    std::string& error) {
  return hasExtension(path, ".png") ? openPictureSink(path, format, error)
                                    : openVideoSink(path, format, error);
}

}  // namespace tavro::host
