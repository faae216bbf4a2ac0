#pragma once

// Figures for how steady a sequence of rectangles is. A face is followed by overlap (FaceNumbers),
// and everything is relative to its size, so that near and far faces count alike.

#include <cstdint>
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

/// Over all pairs of consecutive frames that show a face: how its rectangle changes from one to the
/// other. Size is the square root of the area.
struct Steadiness {
  int64_t steps = 0;             ///< such pairs; without any, the next five mean nothing
  double centreDeviation = 0.0;  ///< standard deviation of the centre's change along an axis
  double centreP99 = 0.0;        ///< 99th percentile of the distance that the centre moves
  double sizeDeviation = 0.0;    ///< the same for the size
  double sizeP99 = 0.0;
  double meanLoss = 0.0;           ///< mean of 1 - IoU
  double flipsPerMinute = 0.0;     ///< a face goes and comes back at its place within a second
  double switchesPerMinute = 0.0;  ///< a face goes and another begins near it within a second
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
  double lagFrames = 0.0;     ///< how far behind it is: the delay that explains its way best
  double meanDistance = 0.0;  ///< from the true centre, relative to the size
  double foundShare = 0.0;    ///< of the frames
};

/// `truth` has a rectangle for each sighting; counted is the found face nearest to it.
Following compare(std::span<const Sighting> sightings, std::span<const FaceRect> truth);

}  // namespace tavro::jitter
