#pragma once

// FaceDetector: the pipeline from one video frame to the faces in it.
//
//   frame --scale--> 192x192 I420 --convert--> B, G, R bytes --network--> scores and offsets
//     --decode--> boxes --track--> rectangles
//
// It owns what carries over from frame to frame: the network and the list of tracked faces.

#include <cstdint>

#include "modules/face_detection/host_interface.h"

namespace TavroRTC::FDModule {

/// One frame of 8-bit planes in 4:2:0 sampling, borrowed for a call. A chroma plane holds
/// (width + 1) / 2 by (height + 1) / 2 samples.
struct FrameView {
  const uint8_t* y = nullptr;
  const uint8_t* u = nullptr;
  const uint8_t* v = nullptr;
  int32_t width = 0;
  int32_t height = 0;
  int32_t strideY = 0;   ///< bytes from one luma row to the next
  int32_t strideUV = 0;  ///< the same for both chroma planes
};

/// One call at a time; different detectors may run side by side.
class FaceDetector {
 public:
  /// Loads nothing yet.
  FaceDetector();
  ~FaceDetector();
  FaceDetector(const FaceDetector&) = delete;
  FaceDetector& operator=(const FaceDetector&) = delete;

  /// Builds the network and the buffers. A face must score above `threshold`; 0 counts as none set.
  /// True if there is a network. A second call only changes the threshold.
  bool init(float threshold);

  /// Puts one rectangle for each face now tracked into `faces`, the oldest face first, in pixels of
  /// the frame, or gives false with `faces` empty and the tracks unchanged: for a frame that can't
  /// be (a message on the standard output says what is wrong, save for a size outside 1 to 32768),
  /// for a detector that isn't ready, and for want of memory. The tracks are unchanged, too, if it
  /// throws std::bad_alloc.
  bool execute(const FrameView& frame, FaceRectSequence& faces);

  /// The version, in double quotes.
  static const char* version();

 private:
  struct State;
  State* state_;
};

}  // namespace TavroRTC::FDModule
