#pragma once

// The tracker: makes the boxes of single frames into faces that last. What the host sees is the
// list of tracks, in the order of their creation, never the boxes themselves. Each frame goes
//
//   associateTracks   each box updates the track that it overlaps most, or is left over
//   pruneTracks       a track that no box of this frame overlaps is gone, without a grace period
//   addTracks         each box left over becomes a new track
//
// A change of the frame's size isn't noticed: overlap decides, as ever.

#include <span>
#include <vector>

#include "modules/face_detection/face_track.h"

namespace TavroRTC::FDModule {

/// Intersection over union, between 0 and 1. NaN for two empty rectangles.
float rectIoU(const FaceRect& a, const FaceRect& b);

/// Updates the tracks from the frame's boxes, one box after the other. Two boxes may act on one
/// track; the second then meets what the first has left. `unmatched` is emptied first.
void associateTracks(std::span<const FaceRect> boxes, std::vector<FaceRect>& unmatched,
                     std::span<FaceTrack> tracks);

/// Removes the tracks that no box overlaps enough; the others keep their order.
void pruneTracks(std::span<const FaceRect> boxes, std::vector<FaceTrack>& tracks);

/// Appends a new track for each box that associateTracks left over.
void addTracks(std::span<const FaceRect> unmatched, std::vector<FaceTrack>& tracks);

}  // namespace TavroRTC::FDModule
