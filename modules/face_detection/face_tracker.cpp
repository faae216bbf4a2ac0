#include "modules/face_detection/face_tracker.h"

#include <algorithm>

#include "modules/face_detection/one_euro_filter.h"

namespace TavroRTC::FDModule {
namespace {

// How well a box must overlap a track: to leave its rectangle where it is, to be smoothed into it,
// and to be the same face at all.
constexpr double holdOverlap = 0.85;
constexpr double updateOverlap = 0.55;
constexpr double sameFaceOverlap = 0.3;

// In double precision, where no area overflows and that of any real frame is exact.
double width(const FaceRect& rect) {
  return static_cast<double>(rect.right) - rect.left;
}
double height(const FaceRect& rect) {
  return static_cast<double>(rect.bottom) - rect.top;
}

struct Match {
  float overlap = 0;
  size_t index = 0;
};

/// The track that the box overlaps most, the first of equals. Overlap 0 if there is none.
Match findBestTrack(const FaceRect& box, std::span<const FaceTrack> tracks) {
  Match best;
  for (size_t i = 0; i < tracks.size(); ++i)
    if (const float overlap = rectIoU(box, tracks[i].faceRect()); overlap > best.overlap)
      best = {overlap, i};
  return best;
}

}  // namespace

float rectIoU(const FaceRect& a, const FaceRect& b) {
  const FaceRect common = {std::max(a.left, b.left), std::max(a.top, b.top),
                           std::min(a.right, b.right), std::min(a.bottom, b.bottom)};
  const auto areaA = static_cast<float>(width(a) * height(a));
  const auto areaB = static_cast<float>(width(b) * height(b));
  const auto inter =
      static_cast<float>(std::max(width(common), 0.0) * std::max(height(common), 0.0));
  return inter / (areaA + areaB - inter);
}

void associateTracks(std::span<const FaceRect> boxes, std::vector<FaceRect>& unmatched,
                     std::span<FaceTrack> tracks) {
  unmatched.clear();
  for (const FaceRect& box : boxes) {
    const Match best = findBestTrack(box, tracks);
    const FaceTrack::Coordinates coordinates = {box.left, box.top, box.right, box.bottom};
    if (best.overlap >= holdOverlap)
      filterHold(tracks[best.index], coordinates);
    else if (best.overlap >= updateOverlap)
      filterUpdate(tracks[best.index], coordinates);
    else if (best.overlap >= sameFaceOverlap)
      filterReset(tracks[best.index], coordinates);
    else
      unmatched.push_back(box);
  }
}

void pruneTracks(std::span<const FaceRect> boxes, std::vector<FaceTrack>& tracks) {
  std::erase_if(tracks, [&](const FaceTrack& track) {
    return std::ranges::none_of(boxes, [rect = track.faceRect()](const FaceRect& box) {
      return rectIoU(rect, box) >= sameFaceOverlap;
    });
  });
}

void addTracks(std::span<const FaceRect> unmatched, std::vector<FaceTrack>& tracks) {
  for (const FaceRect& box : unmatched)
    tracks.emplace_back(box);
}

}  // namespace TavroRTC::FDModule
