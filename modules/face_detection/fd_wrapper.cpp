#include "modules/face_detection/fd_wrapper.h"

#include "modules/face_detection/face_detector.h"
#include "modules/face_detection/frame_analysis.h"
#include "modules/face_detection/module_callback.h"

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

// --- How the host gets an instance, and returns it ---

namespace {

bool refusing = false;  // written while the module is being loaded, only read after that

}  // namespace

int32_t moduleCallback(void* /*context*/, void* command) noexcept {
  const auto* order = static_cast<const ModuleCommand*>(command);
  if (refusing || order == nullptr)
    return -1;
  switch (order->code) {
    case createInstanceCommand:
      if (order->object == nullptr)
        return -1;
      *static_cast<FDWrapper**>(order->object) = new (std::nothrow) FDWrapper;
      return 0;
    case destroyInstanceCommand:
      FDWrapper::destroy(static_cast<FDWrapper*>(order->object));
      return 0;
    default:
      return -1;
  }
}

void refuseCommands() noexcept {
  refusing = true;
}

}  // namespace TavroRTC::FDModule
