#include "tools/jitter/face_recorder.h"

#include <utility>

namespace tavro::jitter {

namespace fd = TavroRTC::FDModule;

std::unique_ptr<FaceRecorder> FaceRecorder::make(int32_t smallestFace, std::string& error) {
  std::unique_ptr<FaceRecorder> made(new FaceRecorder);
  if (!made->analysis_.init()) {
    error = "the network can't be built";
    return nullptr;
  }
  if (smallestFace == 0)
    return made;
  made->windows_ =
      host::DetectorSession::open("", {.windows = {.smallestFace = smallestFace}}, error);
  made->records_.push_back({"windows"});
  return made->windows_ != nullptr ? std::move(made) : nullptr;
}

bool FaceRecorder::record(const host::I420Frame& frame, double time) {
  const auto boxes = analysis_.findBoxes(fd::viewOf(frame), fd::defaultThreshold);
  if (!boxes.has_value())
    return false;
  std::vector<FaceRect> faces = fd::truncated(*boxes);
  records_[0].sightings.push_back({.time = time, .faces = faces});
  fd::updateTracks(faces, tracks_);
  faces.clear();
  for (const fd::FaceTrack& track : tracks_)
    faces.push_back(track.faceRect());
  records_[1].sightings.push_back({.time = time, .faces = std::move(faces)});
  if (windows_ == nullptr)
    return true;
  if (!windows_->search().search(frame, faces_).ok())
    return false;
  const auto seen = faces_.view();
  records_[2].sightings.push_back({.time = time, .faces = {seen.begin(), seen.end()}});
  return true;
}

}  // namespace tavro::jitter
