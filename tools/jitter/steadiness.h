#pragma once

// Figures for how steady a sequence of rectangles is. A face is followed by overlap (FaceNumbers),
// and everything is relative to its size, so that near and far faces count alike.

#include <cstdint>
#include <limits>
#include <map>
#include <span>
#include <vector>

#include "modules/face_detection/host_interface.h"

namespace tavro::jitter {

using TavroRTC::FDModule::FaceRect;

/// The faces of one frame.
struct Sighting {
  double time = 0.0;  ///< seconds
  std::vector<FaceRect> faces;
};

/// A figure for which there is no data.
inline constexpr double unknown = std::numeric_limits<double>::quiet_NaN();

/// Over all pairs of consecutive frames that show a face: how its rectangle changes from one to the
/// other. Size is the square root of the area.
struct Steadiness {
  int64_t steps = 0;                 ///< such pairs; without any, the next five are unknown
  double centreDeviation = unknown;  ///< standard deviation of the centre's change along an axis
  double centreP99 = unknown;        ///< 99th percentile of the distance that the centre moves
  double sizeDeviation = unknown;    ///< the same for the size
  double sizeP99 = unknown;
  double meanLoss = unknown;           ///< mean of 1 - IoU
  double flipsPerMinute = unknown;     ///< a face goes and comes back at its place within a second
  double switchesPerMinute = unknown;  ///< a face goes and another begins near it within a second
};

Steadiness measure(std::span<const Sighting> sightings);

/// The rectangles of each numbered face by the index of the frame.
using Tracks = std::map<int64_t, std::map<size_t, FaceRect>>;
Tracks follow(std::span<const Sighting> sightings);

struct Point {
  double x = 0.0;
  double y = 0.0;
};
Point centre(const FaceRect& face);
double sizeOf(const FaceRect& face);

/// How a rectangle follows a face whose way is known.
struct Following {
  double lagFrames = unknown;     ///< how far behind it is: the delay that explains its way best
  double meanDistance = unknown;  ///< from the true centre, relative to the size
  double foundShare = 0.0;        ///< of the frames
};

/// `truth` has a rectangle for each sighting; counted is the found face nearest to it.
Following compare(std::span<const Sighting> sightings, std::span<const FaceRect> truth);

}  // namespace tavro::jitter
