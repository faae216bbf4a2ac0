#pragma once

// The faces of a clip twice over: as the network and the decoder find them in each frame by itself,
// and as the tracker makes them steady.

#include <memory>
#include <vector>

#include "host/core/i420_frame.h"
#include "modules/face_detection/face_tracker.h"
#include "modules/face_detection/frame_analysis.h"
#include "tools/jitter/steadiness.h"

namespace tavro::jitter {

class FaceRecorder {
 public:
  /// Null if the network can't be built.
  static std::unique_ptr<FaceRecorder> make();

  /// The next frame of the clip. False if the detector refuses it.
  bool record(const host::I420Frame& frame, double time);

  const std::vector<Sighting>& raw() const { return raw_; }  ///< of each frame so far
  const std::vector<Sighting>& tracked() const { return tracked_; }

 private:
  FaceRecorder() = default;

  TavroRTC::FDModule::FrameAnalysis analysis_;
  std::vector<TavroRTC::FDModule::FaceTrack> tracks_;
  std::vector<Sighting> raw_;
  std::vector<Sighting> tracked_;
};

}  // namespace tavro::jitter
