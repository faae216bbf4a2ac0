#include "modules/face_detection/fd_wrapper.h"

#include "modules/face_detection/face_detector.h"
#include "modules/face_detection/frame_analysis.h"

namespace TavroRTC::FDModule {

FDWrapper::FDWrapper() = default;
FDWrapper::~FDWrapper() = default;

bool FDWrapper::init() {
  try {
    detector_ = std::make_shared<FaceDetector>();
    return detector_->init(defaultThreshold);
  } catch (...) {
    return false;
  }
}

bool FDWrapper::execute(const HostFrame* frame, FaceRectSequence* faces) {
  if (frame == nullptr || faces == nullptr)
    return false;
  faces->size = 0;
  if (detector_ == nullptr)
    return false;
  try {
    return detector_->execute(viewOf(*frame), *faces);
  } catch (...) {
    faces->size = 0;
    return false;
  }
}

}  // namespace TavroRTC::FDModule
