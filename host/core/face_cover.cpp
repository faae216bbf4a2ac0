#include "host/core/face_cover.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>

namespace tavro::host {

namespace {

using TavroRTC::FDModule::FaceRect;

// Margins of rounding: time stamps are multiples of a clock's tick.
constexpr double tick = 1e-6;

int32_t between(int32_t before, int32_t after, double part) {
  return static_cast<int32_t>(std::lround(before + part * (double(after) - before)));
}

FaceRect outermost(const FaceRect& a, const FaceRect& b) {
  return {std::min(a.left, b.left), std::min(a.top, b.top), std::max(a.right, b.right),
          std::max(a.bottom, b.bottom)};
}

}  // namespace

void FaceCover::add(double time, std::span<const FaceRect> faces,
                    std::span<const int64_t> numbers) {
  for (size_t i = 0; i < faces.size(); ++i)
    tracks_[numbers[i]].push_back({frames(), faces[i]});
  times_.push_back(times_.empty() ? 0.0 : times_.back() + std::max(time - lastStamp_, 0.0));
  lastStamp_ = time;
}

void FaceCover::forgetBefore(size_t frame) {
  const double reach = std::max(longestGap, lead) + 2 * smoothing + 2 * tick;
  const double kept = timeOf(frame) - reach;
  // A face that is found again within the longest gap goes on with its track.
  std::erase_if(tracks_, [&](const auto& track) {
    const size_t last = track.second.back().frame;
    return last < firstKept_ || timeOf(last) < kept;
  });
  for (; firstKept_ < frame && times_.front() < kept; ++firstKept_)
    times_.pop_front();
  for (auto& [number, track] : tracks_) {
    const auto isUsed = [&](const Sighting& seen) { return seen.frame >= firstKept_; };
    track.erase(track.begin(), std::ranges::find_if(track, isUsed));
  }
}

/// The track's rectangle in that frame, if it has one there.
bool FaceCover::isCovered(const Track& track, size_t frame, FaceRect& face) const {
  const auto after = std::ranges::lower_bound(track, frame, std::ranges::less(), &Sighting::frame);
  const double time = timeOf(frame);
  if (after == track.end() || after == track.begin()) {
    const Sighting& nearest = after == track.end() ? track.back() : track.front();
    face = nearest.face;
    return std::abs(timeOf(nearest.frame) - time) <= lead + tick;
  }
  const Sighting& before = *std::prev(after);
  const double gap = timeOf(after->frame) - timeOf(before.frame);
  const double since = time - timeOf(before.frame);
  if (after->frame != frame && gap > longestGap + tick) {  // two tracks, in truth
    face = since <= gap / 2 ? before.face : after->face;
    return std::min(since, gap - since) <= lead + tick;
  }
  const double part = gap > 0.0 ? since / gap : 1.0;
  face = {between(before.face.left, after->face.left, part),
          between(before.face.top, after->face.top, part),
          between(before.face.right, after->face.right, part),
          between(before.face.bottom, after->face.bottom, part)};
  return true;
}

std::vector<FaceCover::FaceRect> FaceCover::at(size_t frame) const {
  const double time = timeOf(frame);
  const auto indexOf = [this](auto found) {
    return firstKept_ + static_cast<size_t>(found - times_.begin());
  };
  const size_t first = indexOf(std::ranges::lower_bound(times_, time - 2 * smoothing - tick));
  const size_t end = indexOf(std::ranges::upper_bound(times_, time + 2 * smoothing + tick));

  std::vector<FaceRect> covers;
  std::vector<FaceRect> faces(end - first);
  std::vector<bool> isThere(end - first);
  for (const auto& [number, track] : tracks_) {
    if (track.front().frame > frame && timeOf(track.front().frame) - time > lead + tick)
      break;  // those after it begin later still
    FaceRect here;
    if (!isCovered(track, frame, here))
      continue;
    for (size_t i = first; i < end; ++i)
      isThere[i - first] = isCovered(track, i, faces[i - first]);
    std::array<double, 4> sums = {};
    int64_t count = 0;
    for (size_t i = first; i < end; ++i) {
      if (!isThere[i - first] || std::abs(timeOf(i) - time) > smoothing + tick)
        continue;
      FaceRect around = faces[i - first];
      for (size_t j = first; j < end; ++j)
        if (isThere[j - first] && std::abs(timeOf(j) - timeOf(i)) <= smoothing + tick)
          around = outermost(around, faces[j - first]);
      sums[0] += around.left;
      sums[1] += around.top;
      sums[2] += around.right;
      sums[3] += around.bottom;
      ++count;
    }
    const auto mean = [count](double sum) { return sum / static_cast<double>(count); };
    const FaceRect smooth = {static_cast<int32_t>(std::floor(mean(sums[0]))),
                             static_cast<int32_t>(std::floor(mean(sums[1]))),
                             static_cast<int32_t>(std::ceil(mean(sums[2]))),
                             static_cast<int32_t>(std::ceil(mean(sums[3])))};
    covers.push_back(outermost(smooth, here));
  }
  return covers;
}

}  // namespace tavro::host
