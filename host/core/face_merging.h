#pragma once

// From what several windows see to the faces of the frame.
//
//   rectangles of each window --sameFaces--> faces, each with the windows that see it
//                             --FaceMerger--> one rectangle a face, steady from frame to frame
//
// Two rectangles are of one face if they overlap by `sameOverlap` (intersection over union), if
// most of one that is at least half as large lies in the other, or if a smaller one lies in the
// middle of the other. So a small face before a large one stays a face of its own. A rectangle is
// cut off if it comes close to an edge of its window that isn't the frame's, too; then less overlap
// will do.
//
// A face is best seen where it covers 32 to 96 of the 192 pixels, by the worse of the window's two
// scales, and where the edges are a quarter of its size away or more. It keeps the window that it
// was taken from until another sees it better by `advantage`, cuts it off or loses it. The
// difference between the two opinions then fades over some frames, so that the rectangle slides
// from one to the other.

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "host/core/window_plan.h"
#include "modules/face_detection/host_interface.h"

namespace tavro::host {

/// What a window reports.
struct Sighting {
  static constexpr size_t nothing = static_cast<size_t>(-1);

  TavroRTC::FDModule::FaceRect face;  ///< in pixels of the frame
  size_t window = 0;                  ///< index in the plan
  size_t follows = nothing;           ///< a face that was taken from this window in the last frame
};

/// How well a window shows a face: from 0, cut off, to 1.
double sightOf(const TavroRTC::FDModule::FaceRect& face, const Window& window, int32_t frameWidth,
               int32_t frameHeight);

/// Groups the sightings by face: each group is a list of their indexes, the best seen one first.
/// May throw std::bad_alloc, as FaceMerger may.
std::vector<std::vector<size_t>> sameFaces(std::span<const Sighting> sightings,
                                           std::span<const Window> windows, int32_t frameWidth,
                                           int32_t frameHeight);

/// Follows the faces of one video.
class FaceMerger {
 public:
  FaceMerger() = default;
  FaceMerger(std::vector<Window> windows, int32_t frameWidth, int32_t frameHeight);

  /// The faces of the next frame, the oldest first.
  std::span<const TavroRTC::FDModule::FaceRect> update(std::vector<Sighting> sightings);

 private:
  using Edges = std::array<double, 4>;  ///< in the order of FaceRect
  struct Face {
    size_t window = 0;                     ///< that it is taken from
    TavroRTC::FDModule::FaceRect opinion;  ///< of that window
    Edges offset = {};                     ///< from the opinion to what is shown
    TavroRTC::FDModule::FaceRect shown;
    std::vector<Sighting> others = {};  ///< what the other windows say
  };

  using Groups = std::vector<std::vector<size_t>>;

  void followFaces(std::vector<Sighting>& sightings) const;
  std::vector<size_t> findOwners(const Groups& groups, std::span<const Sighting> sightings) const;
  static Edges offsetAfter(const Face& before, size_t owner, std::span<const Sighting> sightings,
                           std::span<const size_t> group);

  std::vector<Window> windows_;
  int32_t frameWidth_ = 0;
  int32_t frameHeight_ = 0;
  std::vector<Face> faces_;
  std::vector<TavroRTC::FDModule::FaceRect> shown_;
};

}  // namespace tavro::host
