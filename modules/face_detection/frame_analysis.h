#pragma once

// FrameAnalysis: the faces in one video frame, taken by itself.
//
//   frame --scale--> 192x192 I420 --convert--> B, G, R bytes --network--> scores and offsets
//     --decode--> boxes, best first
//
// It owns the network and the buffers; nothing of a frame outlives the call. FaceDetector adds the
// tracker, and tools that look at single frames use it alone.

#include <cstdint>
#include <optional>
#include <vector>

#include "modules/face_detection/box_decoder.h"
#include "modules/face_detection/frame_view.h"
#include "modules/face_detection/host_interface.h"
#include "modules/face_detection/impl.h"

namespace TavroRTC::FDModule {

/// What the module looks for: a face must score above the threshold, and the box that exceeds the
/// limit is the last one kept.
inline constexpr float defaultThreshold = 0.65F;
inline constexpr int32_t defaultKeepLimit = 5;

/// The raw outputs of the network: four offsets and two scores for each prior box. They belong to
/// the network and hold until its next run.
struct NetworkOutput {
  const float* boxes = nullptr;
  const float* scores = nullptr;
};

/// One call at a time; different instances may run side by side. Any call may throw std::bad_alloc.
class FrameAnalysis {
 public:
  /// Loads nothing yet.
  FrameAnalysis() = default;
  ~FrameAnalysis();
  FrameAnalysis(const FrameAnalysis&) = delete;
  FrameAnalysis& operator=(const FrameAnalysis&) = delete;

  /// Builds the network and the buffers that don't exist yet. True if there is a network. Missing
  /// buffers are reported with the first frame.
  bool init();

  /// The boxes in the frame, best first. Nullopt if the frame is invalid, the instance isn't ready
  /// or there is no memory. A message on the standard output says what is wrong, except for a frame
  /// size outside 1 to 32768.
  std::optional<std::vector<Detection>> findBoxes(const FrameView& frame, float threshold,
                                                  int32_t keepLimit = defaultKeepLimit);

  /// What the network sees: packedInputSize bytes, made from the last frame or written by the
  /// caller. Null if there was no memory for it.
  uint8_t* picture() { return packedBuffer_; }

  /// Runs the network on the picture. False if it can't run.
  bool runNetwork(NetworkOutput& output);

 private:
  const char* findProblem(const FrameView& frame) const;

  Impl* impl_ = nullptr;
  uint8_t* planarBuffer_ = nullptr;  ///< the frame at the network's size, three planes
  uint8_t* packedBuffer_ = nullptr;  ///< the same as B, G, R bytes: the network reads it in place
  // Looks odd, is meant: two spare buffers of 112x112. They are part of an instance's layout and
  // live as long as the other two, but no stage uses them.
  uint8_t* auxPackedBuffer_ = nullptr;
  uint8_t* auxPlanarBuffer_ = nullptr;
};

/// Decodes the network's outputs for a frame of that size: boxes in its pixels, best first.
std::vector<Detection> decodeBoxes(const NetworkOutput& output, int32_t frameWidth,
                                   int32_t frameHeight, float threshold,
                                   int32_t keepLimit = defaultKeepLimit);

/// The boxes in whole pixels, truncated toward zero, as the tracker takes them.
std::vector<FaceRect> truncated(const std::vector<Detection>& boxes);

}  // namespace TavroRTC::FDModule
