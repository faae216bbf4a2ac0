#include "modules/face_detection/one_euro_filter.h"

#include <algorithm>
#include <cmath>

#include "modules/face_detection/truncation.h"

namespace TavroRTC::FDModule {
namespace {

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
