#include "tools/jitter/steadiness.h"

#include <algorithm>
#include <cmath>
#include <optional>

#include "host/core/face_numbers.h"
#include "host/core/face_rects.h"

namespace tavro::jitter {

namespace {

double deviation(std::span<const double> values) {
  double sum = 0.0;
  double squares = 0.0;
  for (const double value : values) {
    sum += value;
    squares += value * value;
  }
  const auto count = static_cast<double>(values.size());
  return std::sqrt(std::max(0.0, squares / count - sum / count * (sum / count)));
}

/// Nearest rank.
double percentile99(std::vector<double> values) {
  const auto rank = static_cast<size_t>(std::ceil(0.99 * static_cast<double>(values.size())));
  const auto place = values.begin() + static_cast<ptrdiff_t>(rank - 1);
  std::ranges::nth_element(values, place);
  return *place;
}

constexpr double memory = 1.0;  // seconds, as that of FaceNumbers

struct Changes {
  std::vector<double> axes;
  std::vector<double> distances;
  std::vector<double> sizes;
  double loss = 0.0;
};

void addChange(const FaceRect& before, const FaceRect& after, Changes& changes) {
  const double size = std::max(1.0, (sizeOf(before) + sizeOf(after)) / 2.0);
  const double x = (centre(after).x - centre(before).x) / size;
  const double y = (centre(after).y - centre(before).y) / size;
  changes.axes.insert(changes.axes.end(), {x, y});
  changes.distances.push_back(std::hypot(x, y));
  changes.sizes.push_back((sizeOf(after) - sizeOf(before)) / size);
  changes.loss += 1.0 - host::overlap(before, after);
}

/// True if another face begins within a moment of this one's end, less than its size away.
bool goesOnElsewhere(const Tracks& tracks, int64_t number, std::span<const Sighting> sightings) {
  const size_t end = tracks.at(number).rbegin()->first;
  const FaceRect last = tracks.at(number).rbegin()->second;
  return std::ranges::any_of(tracks, [&](const auto& other) {
    const auto& [begin, first] = *other.second.begin();
    const double gap = sightings[begin].time - sightings[end].time;
    return begin > end && gap <= memory &&
           std::hypot(centre(first).x - centre(last).x, centre(first).y - centre(last).y) <
               sizeOf(last);
  });
}

/// The parabola through three equally spaced values has its least value so far from the middle one.
double leastBetween(double before, double middle, double after) {
  const double bend = before - 2.0 * middle + after;
  return bend > 0.0 ? 0.5 * (before - after) / bend : 0.0;
}

}  // namespace

Point centre(const FaceRect& face) {
  return {(static_cast<double>(face.left) + face.right) / 2.0,
          (static_cast<double>(face.top) + face.bottom) / 2.0};
}

double sizeOf(const FaceRect& face) {
  const double width = static_cast<double>(face.right) - face.left;
  const double height = static_cast<double>(face.bottom) - face.top;
  return std::sqrt(std::max(0.0, width * height));
}

Tracks follow(std::span<const Sighting> sightings) {
  Tracks tracks;
  host::FaceNumbers numbers;
  for (size_t frame = 0; frame < sightings.size(); ++frame) {
    const auto& faces = sightings[frame].faces;
    const auto given = numbers.update(faces, sightings[frame].time);
    for (size_t i = 0; i < faces.size(); ++i)
      tracks[given[i]][frame] = faces[i];
  }
  return tracks;
}

Steadiness measure(std::span<const Sighting> sightings) {
  Steadiness result;
  if (sightings.size() < 2)
    return result;
  Changes changes;
  int64_t flips = 0;
  int64_t switches = 0;
  const Tracks tracks = follow(sightings);
  for (const auto& [number, places] : tracks) {
    for (auto after = std::next(places.begin()); after != places.end(); ++after) {
      const auto before = std::prev(after);
      if (after->first == before->first + 1)
        addChange(before->second, after->second, changes);
      else
        ++flips;
    }
    switches += goesOnElsewhere(tracks, number, sightings) ? 1 : 0;
  }
  const double minutes = (sightings.back().time - sightings.front().time) / 60.0;
  if (minutes > 0.0) {
    result.flipsPerMinute = static_cast<double>(flips) / minutes;
    result.switchesPerMinute = static_cast<double>(switches) / minutes;
  }
  result.steps = static_cast<int64_t>(changes.sizes.size());
  if (result.steps > 0) {
    result.centreDeviation = deviation(changes.axes);
    result.centreP99 = percentile99(changes.distances);
    result.sizeDeviation = deviation(changes.sizes);
    for (double& size : changes.sizes)
      size = std::abs(size);
    result.sizeP99 = percentile99(changes.sizes);
    result.meanLoss = changes.loss / static_cast<double>(result.steps);
  }
  return result;
}

Following compare(std::span<const Sighting> sightings, std::span<const FaceRect> truth) {
  constexpr int mostLag = 30;
  std::vector<std::optional<Point>> found;
  double distance = 0.0;
  int64_t count = 0;
  for (size_t frame = 0; frame < sightings.size(); ++frame) {
    const Point target = centre(truth[frame]);
    const double size = sizeOf(truth[frame]);
    std::optional<Point> nearest;
    double least = size;  // what is further away is something else
    for (const FaceRect& face : sightings[frame].faces) {
      const double away = std::hypot(centre(face).x - target.x, centre(face).y - target.y);
      if (away < least) {
        least = away;
        nearest = centre(face);
      }
    }
    found.push_back(nearest);
    if (nearest.has_value()) {
      distance += least / size;
      ++count;
    }
  }
  Following result;
  if (count == 0)
    return result;
  result.meanDistance = distance / static_cast<double>(count);
  result.foundShare = static_cast<double>(count) / static_cast<double>(found.size());
  // The mean squared distance for every delay; the same frames for all of them. A constant
  // distance, such as a network's that sees chins lower than the truth has them, is no delay.
  std::vector<double> errors;
  for (int lag = -1; lag <= mostLag; ++lag) {
    double sums[3] = {};
    int64_t counted = 0;
    for (size_t frame = mostLag; frame + 1 < found.size(); ++frame) {
      if (!found[frame].has_value())
        continue;
      const Point before = centre(truth[static_cast<size_t>(static_cast<int64_t>(frame) - lag)]);
      const double x = found[frame]->x - before.x;
      const double y = found[frame]->y - before.y;
      sums[0] += x;
      sums[1] += y;
      sums[2] += x * x + y * y;
      ++counted;
    }
    if (counted == 0)
      return result;
    const auto n = static_cast<double>(counted);
    errors.push_back(sums[2] / n - sums[0] / n * (sums[0] / n) - sums[1] / n * (sums[1] / n));
  }
  const auto best = static_cast<size_t>(std::ranges::min_element(errors) - errors.begin());
  result.lagFrames = static_cast<double>(best) - 1.0;
  if (best > 0 && best + 1 < errors.size())
    result.lagFrames += leastBetween(errors[best - 1], errors[best], errors[best + 1]);
  return result;
}

}  // namespace tavro::jitter
