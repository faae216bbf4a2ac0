#pragma once

// The tracker and its filter turn the boxes of single frames into faces that last. The host sees
// the list of tracks, in the order of their creation, never the boxes themselves. Each frame goes
//
//   associateTracks   each box updates the track that it overlaps most, or is left over
//   pruneTracks       a track that no box of this frame overlaps is removed, without a grace period
//   addTracks         each box left over becomes a new track
//
// A change of the frame's size isn't noticed: only overlap decides.
//
// By the amount of overlap an update holds the rectangle, smooths it or replaces it. What smooths
// is the One Euro filter (Casiez, Roussel and Vogel, "1 Euro Filter: A Simple Speed-based Low-pass
// Filter for Noisy Input in Interactive Systems", CHI 2012): a low-pass filter whose cut-off rises
// with the speed of the signal. A face at rest doesn't jitter and a moving one doesn't lag. Two
// things are different here: the time step is one frame, so no clock enters, and the filter
// remembers its value in whole pixels, truncated toward zero.

#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "modules/face_detection/host_interface.h"

namespace TavroRTC::FDModule {

/// One face that is followed from frame to frame: the rectangle that the host sees and the state of
/// the filter that smooths it. Coordinates stand in the order of FaceRect. A track has no
/// identifier and no age; its place in the list tells it from others.
struct FaceTrack {
  static constexpr int32_t dimension = 4;
  using Coordinates = std::array<int32_t, dimension>;

  FaceTrack() = default;
  explicit FaceTrack(const FaceRect& face)
      : rect{face.left, face.top, face.right, face.bottom}, previous(rect) {}

  FaceRect faceRect() const { return {rect[0], rect[1], rect[2], rect[3]}; }

  Coordinates rect{};
  float minCutoff = 0.25F;  ///< filter: cut-off frequency at rest, per frame
  float dCutoff = 0.35F;    ///< filter: cut-off frequency of the rate of change
  float beta = 0.05F;       ///< filter: how fast the cut-off rises with the rate of change
  Coordinates previous{};   ///< filter: its last value, not always what `rect` shows
  std::array<float, dimension> derivative{};  ///< filter: smoothed rate of change, pixels per frame
};

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

/// The three steps of a frame. Nothing has changed if it throws std::bad_alloc.
void updateTracks(std::span<const FaceRect> boxes, std::vector<FaceTrack>& tracks);

// The filter. `input` is a rectangle in the order of FaceRect; false, with the track as it was, if
// its length isn't 4.

/// Moves the rectangle toward the input.
bool filterUpdate(FaceTrack& track, std::span<const int32_t> input);

/// Leaves the rectangle alone while the filter follows the input. A later update starts from there
/// and not from the rectangle on display.
bool filterHold(FaceTrack& track, std::span<const int32_t> input);

/// Replaces the rectangle by the input and forgets the past.
bool filterReset(FaceTrack& track, std::span<const int32_t> input);

}  // namespace TavroRTC::FDModule
