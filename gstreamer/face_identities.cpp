#include "gstreamer/face_identities.h"

#include <cstddef>
#include <utility>

#include "host/core/face_overlap.h"

namespace tavro::gstreamer {

namespace {

constexpr double leastOverlap = 0.3;

}  // namespace

void FaceIdentities::update(std::span<const FaceRect> rects) {
  std::vector<Face> named;
  named.reserve(rects.size());
  size_t next = 0;
  for (const FaceRect& rect : rects) {
    size_t best = faces_.size();
    double bestOverlap = 0;
    for (size_t i = next; i < faces_.size(); ++i)
      if (const double shared = host::overlap(rect, faces_[i].rect);
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
