#pragma once

// FaceCover: what has to be hidden in each frame so that no face shows for a moment. A detector
// misses a face now and then, finds it a little late, and its rectangles tremble; whoever sees the
// frames before and after knows better.
//
//   numbered faces of each frame --add--> tracks --at(frame)--> rectangles that cover them
//
// A track has a rectangle for each frame: the found one; between two found ones up to `longestGap`
// apart, what lies between them; and the first and the last one for `lead` seconds before and
// after. Then each edge is the mean, over `smoothing` seconds to both sides, of its outermost
// position within `smoothing` seconds: that moves smoothly and never uncovers what was found, since
// the outermost position around each of these moments takes in this one.

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <span>
#include <vector>

#include "modules/face_detection/host_interface.h"

namespace tavro::host {

class FaceCover {
 public:
  using FaceRect = TavroRTC::FDModule::FaceRect;

  static constexpr double longestGap = 1.0;  ///< seconds
  static constexpr double lead = 1.0 / 3.0;
  static constexpr double smoothing = 0.1;
  /// Faces that are found so much later change nothing. (An end of `lead` may become a gap.)
  static constexpr double lookAhead = longestGap + 2 * smoothing;

  /// The next frame, whose faces have the numbers of FaceNumbers. `time` is in seconds; if it goes
  /// back, as in a video that was put together from several, no time has passed. May throw
  /// std::bad_alloc.
  void add(double time, std::span<const FaceRect> faces, std::span<const int64_t> numbers);

  /// What to hide in a frame, by its index in the order of add(), as far as the faces are known by
  /// now. Each rectangle covers the found one of its face.
  std::vector<FaceRect> at(size_t frame) const;

  /// How many seconds the latest frame came after that one.
  double secondsSince(size_t frame) const { return times_.back() - times_[frame - firstKept_]; }

  /// Drops what is of no use for that frame and those after it. at() takes no earlier ones then.
  void forgetBefore(size_t frame);

  size_t frames() const { return firstKept_ + times_.size(); }

 private:
  struct Sighting {
    size_t frame;
    FaceRect face;
  };
  using Track = std::vector<Sighting>;

  bool isCovered(const Track& track, size_t frame, FaceRect& face) const;

  double timeOf(size_t frame) const { return times_[frame - firstKept_]; }

  std::deque<double> times_;
  size_t firstKept_ = 0;  ///< frame of the first of these times
  double lastStamp_ = 0.0;
  std::map<int64_t, Track> tracks_;  ///< by the face's number, in the order of their beginnings
};

}  // namespace tavro::host
