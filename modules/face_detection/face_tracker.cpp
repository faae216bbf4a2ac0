#include "modules/face_detection/face_tracker.h"

#include <algorithm>
#include <cmath>

#include "modules/face_detection/truncation.h"

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

// 2 pi, to ten digits. More of them would move a rectangle by a pixel now and then, and with that
// every recorded result.
constexpr double tau = 6.283185308;

/// The weight of a new value against the old one, for a cut-off in cycles per frame.
float smoothingFactor(float cutoff) {
  const auto radians = static_cast<float>(static_cast<double>(cutoff) * tau);
  return radians / (radians + 1.0F);
}

/// The smoothed rate of change of one coordinate, which moves from `previous` to `next`.
float smoothedRate(int32_t next, int32_t previous, float derivative, float factor) {
  const int64_t difference = static_cast<int64_t>(next) - previous;
  return static_cast<float>(difference) * factor + (1.0F - factor) * derivative;
}

bool fits(const FaceTrack& track, std::span<const int32_t> input) {
  return input.size() == track.previous.size();
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

void updateTracks(std::span<const FaceRect> boxes, std::vector<FaceTrack>& tracks) {
  std::vector<FaceRect> unmatched;
  // Whatever may throw does so before a track is touched.
  unmatched.reserve(boxes.size());
  tracks.reserve(tracks.size() + boxes.size());
  associateTracks(boxes, unmatched, tracks);
  pruneTracks(boxes, tracks);
  addTracks(unmatched, tracks);
}

bool filterUpdate(FaceTrack& track, std::span<const int32_t> input) {
  if (!fits(track, input))
    return false;
  const float rateFactor = smoothingFactor(track.dCutoff);
  for (size_t k = 0; k < input.size(); ++k) {
    const int32_t previous = track.previous[k];
    const float rate = smoothedRate(input[k], previous, track.derivative[k], rateFactor);
    const float factor = smoothingFactor(std::abs(rate) * track.beta + track.minCutoff);
    const float smoothed =
        (1.0F - factor) * static_cast<float>(previous) + static_cast<float>(input[k]) * factor;
    track.previous[k] = track.rect[k] = truncateToInt32(smoothed);
    track.derivative[k] = rate;
  }
  return true;
}

bool filterHold(FaceTrack& track, std::span<const int32_t> input) {
  if (!fits(track, input))
    return false;
  const float rateFactor = smoothingFactor(track.dCutoff);
  for (size_t k = 0; k < input.size(); ++k) {
    track.derivative[k] =
        smoothedRate(input[k], track.previous[k], track.derivative[k], rateFactor);
    track.previous[k] = input[k];
  }
  return true;
}

bool filterReset(FaceTrack& track, std::span<const int32_t> input) {
  if (!fits(track, input))
    return false;
  std::ranges::copy(input, track.rect.begin());
  track.previous = track.rect;
  track.derivative.fill(0.0F);
  return true;
}

}  // namespace TavroRTC::FDModule
