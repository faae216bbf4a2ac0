#include "tools/jitter/face_recorder.h"

namespace tavro::jitter {

namespace fd = TavroRTC::FDModule;

std::unique_ptr<FaceRecorder> FaceRecorder::make() {
  std::unique_ptr<FaceRecorder> made(new FaceRecorder);
  return made->analysis_.init() ? std::move(made) : nullptr;
}

bool FaceRecorder::record(const host::I420Frame& frame, double time) {
  const auto boxes = analysis_.findBoxes(fd::viewOf(frame), fd::defaultThreshold);
  if (!boxes.has_value())
    return false;
  raw_.push_back({.time = time, .faces = fd::truncated(*boxes)});
  fd::updateTracks(raw_.back().faces, tracks_);
  Sighting& tracked = tracked_.emplace_back(Sighting{.time = time, .faces = {}});
  for (const fd::FaceTrack& track : tracks_)
    tracked.faces.push_back(track.faceRect());
  return true;
}

}  // namespace tavro::jitter
