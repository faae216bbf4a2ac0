#include "host/app/search/detector_session.h"

#include "host/core/module_host.h"
#include "modules/face_detection/fd_wrapper.h"

namespace tavro::host {

std::unique_ptr<DetectorSession> DetectorSession::open(const std::string& path,
                                                       std::string& error) {
  std::string file = path;
  if (file.empty())
    if (const Status found = findDetector(file); !found.ok()) {
      error = found.error + "; name it with --module";
      return nullptr;
    }
  std::unique_ptr<DetectorSession> session(new DetectorSession);
  Status status = loadModule(file, &session->moduleName_);
  if (status.ok())
    status = createInstance(session->moduleName_, &session->instance_);
  if (!status.ok()) {
    error = status.error;
    return nullptr;
  }
  if (!session->instance_->init()) {
    error = "the detector can't be prepared";
    return nullptr;
  }
  return session;
}

DetectorSession::~DetectorSession() {
  // Nobody is left to tell about a failure, and the process's end cleans up what stays.
  if (instance_ != nullptr)
    static_cast<void>(destroyInstance(instance_));
  if (!moduleName_.empty())
    static_cast<void>(unloadModule(moduleName_));
}

bool DetectorSession::detect(const I420Frame& frame, FaceRects& faces) {
  faces.clear();
  const bool done = instance_->execute(&frame, faces.sequence());
  if (!done)
    faces.clear();
  return done;
}

}  // namespace tavro::host
