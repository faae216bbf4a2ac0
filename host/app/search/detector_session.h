#pragma once

// DetectorSession: the detector module, loaded through libtavro-core, and one instance of it.

#include <memory>
#include <string>

#include "host/core/face_rects.h"
#include "host/core/i420_frame.h"

namespace TavroRTC::FDModule {
class FDWrapper;
}

namespace tavro::host {

class DetectorSession {
 public:
  /// Loads the module in `path`, or, if that is empty, the one beside libtavro-core. Null if it
  /// fails, with the reason in `error`.
  static std::unique_ptr<DetectorSession> open(const std::string& path, std::string& error);
  ~DetectorSession();
  DetectorSession(const DetectorSession&) = delete;
  DetectorSession& operator=(const DetectorSession&) = delete;

  /// Finds the faces in the next frame. False, with `faces` empty, if the module refuses it.
  bool detect(const I420Frame& frame, FaceRects& faces);

 private:
  DetectorSession() = default;

  std::string moduleName_;
  TavroRTC::FDModule::FDWrapper* instance_ = nullptr;
};

}  // namespace tavro::host
