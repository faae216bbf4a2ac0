#include "gstreamer/face_identities.h"

#include <algorithm>
#include <cstddef>
#include <utility>

namespace tavro::gstreamer {

namespace {

constexpr double leastOverlap = 0.3;

double area(const FaceRect& rect) {
  return (static_cast<double>(rect.right) - rect.left) *
         (static_cast<double>(rect.bottom) - rect.top);
}

double overlap(const FaceRect& a, const FaceRect& b) {
  const double width = static_cast<double>(std::min(a.right, b.right)) - std::max(a.left, b.left);
  const double height = static_cast<double>(std::min(a.bottom, b.bottom)) - std::max(a.top, b.top);
  if (width <= 0 || height <= 0)
    return 0;
  return width * height / (area(a) + area(b) - width * height);
}

}  // namespace

void FaceIdentities::update(std::span<const FaceRect> rects) {
  std::vector<Face> named;
  named.reserve(rects.size());
  size_t next = 0;
  for (const FaceRect& rect : rects) {
    size_t best = faces_.size();
    double bestOverlap = 0;
    for (size_t i = next; i < faces_.size(); ++i)
      if (const double shared = overlap(rect, faces_[i].rect);
          shared >= leastOverlap && shared > bestOverlap) {
        best = i;
        bestOverlap = shared;
      }
    const bool isKnown = best < faces_.size();
    named.push_back({isKnown ? faces_[best].id : ++latestId_, rect});
    if (isKnown)
      next = best + 1;
  }
  faces_ = std::move(named);
}

}  // namespace tavro::gstreamer
