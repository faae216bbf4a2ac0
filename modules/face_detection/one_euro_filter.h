#pragma once

// The One Euro filter (Casiez, Roussel and Vogel, "1 Euro Filter: A Simple Speed-based Low-pass
// Filter for Noisy Input in Interactive Systems", CHI 2012): a low-pass filter whose cut-off rises
// with the speed of the signal. A face at rest doesn't jitter and a moving one doesn't lag.
//
// Three things are different here. The time step is one frame, so no clock enters. The filter
// remembers its value in whole pixels, truncated toward zero. And by how well a detection agrees
// with the track, the tracker may also hold the rectangle or start the filter anew.
//
// `input` is a rectangle in the order of FaceRect. An input of any length but four is refused with
// false, and the track stays as it was.

#include <cstdint>
#include <span>

#include "modules/face_detection/face_track.h"

namespace TavroRTC::FDModule {

/// Moves the rectangle toward the input.
bool filterUpdate(FaceTrack& track, std::span<const int32_t> input);

/// Leaves the rectangle alone while the filter follows the input. A later update starts from there
/// and not from the rectangle on display.
bool filterHold(FaceTrack& track, std::span<const int32_t> input);

/// Replaces the rectangle by the input and forgets the past.
bool filterReset(FaceTrack& track, std::span<const int32_t> input);

}  // namespace TavroRTC::FDModule
