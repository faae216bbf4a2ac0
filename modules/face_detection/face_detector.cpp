#include "modules/face_detection/face_detector.h"

#include <limits>
#include <vector>

#include "engine/log.h"
#include "modules/face_detection/face_tracker.h"
#include "modules/face_detection/frame_analysis.h"

namespace TavroRTC::FDModule {
namespace {

/// Has the host make room. Its word isn't taken for it.
bool growTo(FaceRectSequence& sequence, size_t count) {
  if (count > static_cast<size_t>(std::numeric_limits<int32_t>::max()))
    return false;
  const auto capacity = static_cast<int32_t>(count);
  if (sequence.capacity < capacity &&
      (sequence.grow == nullptr || !sequence.grow(&sequence, capacity)))
    return false;
  return capacity == 0 || (sequence.elements != nullptr && sequence.capacity >= capacity);
}

}  // namespace

struct FaceDetector::State {
  float threshold = 0;            ///< 0: none set
  std::vector<FaceTrack> tracks;  ///< in order of creation
  FrameAnalysis analysis;         ///< the last, so that it is the first to be destroyed
};

FaceDetector::FaceDetector() : state_(new State) {}

FaceDetector::~FaceDetector() {
  delete state_;
}

bool FaceDetector::init(float threshold) {
  state_->threshold = threshold;
  return state_->analysis.init();
}

bool FaceDetector::execute(const FrameView& frame, FaceRectSequence& faces) {
  faces.size = 0;
  if (state_->threshold == 0) {
    logPrint("threshold not set, pls check\n");
    return false;
  }
  const auto found = state_->analysis.findBoxes(frame, state_->threshold);
  // Room for the most tracks that there can be after this frame: once a track has been touched,
  // nothing may fail.
  if (!found.has_value() || !growTo(faces, state_->tracks.size() + found->size()))
    return false;
  updateTracks(truncated(*found), state_->tracks);
  for (const FaceTrack& track : state_->tracks)
    faces.elements[faces.size++] = track.faceRect();
  return true;
}

const char* FaceDetector::version() {
  return "\"facedetection_release_1.2.0\"";
}

}  // namespace TavroRTC::FDModule
