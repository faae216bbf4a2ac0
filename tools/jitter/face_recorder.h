#pragma once

// The faces of a clip twice over: as the network and the decoder find them in each frame by itself,
// and as the tracker makes them steady; on demand also as windows of the frame show them.

#include <memory>
#include <string>
#include <vector>

#include "host/app/search/detector_session.h"
#include "host/core/i420_frame.h"
#include "modules/face_detection/face_tracker.h"
#include "modules/face_detection/frame_analysis.h"
#include "tools/jitter/steadiness.h"

namespace tavro::jitter {

/// The faces of each frame so far, found in one way.
struct Record {
  const char* way;
  std::vector<Sighting> sightings = {};
};

class FaceRecorder {
 public:
  /// With a smallest face, the frames are also searched as tavro-fd --smallest-face does. Null if
  /// it fails.
  static std::unique_ptr<FaceRecorder> make(int32_t smallestFace, std::string& error);

  /// The next frame of the clip. False if the detector refuses it.
  bool record(const host::I420Frame& frame, double time);

  /// Those of single frames first, then the tracked ones, then those through windows, if any.
  const std::vector<Record>& records() const { return records_; }

 private:
  FaceRecorder() = default;

  TavroRTC::FDModule::FrameAnalysis analysis_;
  std::vector<TavroRTC::FDModule::FaceTrack> tracks_;
  std::unique_ptr<host::DetectorSession> windows_;
  host::FaceRects faces_;
  std::vector<Record> records_ = {{"raw"}, {"tracked"}};
};

}  // namespace tavro::jitter
