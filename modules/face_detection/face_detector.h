#pragma once

// FaceDetector: the pipeline from one video frame to the faces in it.
//
//   frame --FrameAnalysis--> boxes of this frame --updateTracks--> rectangles of the faces
//
// It owns what carries over from frame to frame: the network and the list of tracked faces.

#include <cstdint>

#include "modules/face_detection/frame_view.h"
#include "modules/face_detection/host_interface.h"

namespace TavroRTC::FDModule {

/// One call at a time; different detectors may run side by side.
class FaceDetector {
 public:
  /// Loads nothing yet.
  FaceDetector();
  ~FaceDetector();
  FaceDetector(const FaceDetector&) = delete;
  FaceDetector& operator=(const FaceDetector&) = delete;

  /// Builds the network and the buffers. A face must score above `threshold`; 0 means none is set.
  /// True if there is a network. A second call only changes the threshold.
  bool init(float threshold);

  /// Puts one rectangle for each tracked face into `faces`, the oldest face first, in pixels of the
  /// frame. False, with `faces` empty and the tracks unchanged, if the frame is invalid, the
  /// detector isn't ready or there is no memory. A message on the standard output says what is
  /// wrong, except for a frame size outside 1 to 32768. The tracks are also unchanged if it throws
  /// std::bad_alloc.
  bool execute(const FrameView& frame, FaceRectSequence& faces);

  /// The version, in double quotes.
  static const char* version();

 private:
  struct State;
  State* state_;
};

}  // namespace TavroRTC::FDModule
