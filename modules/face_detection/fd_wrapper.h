#pragma once

// FDWrapper: the instance that the host works with. The host gets one from moduleCallback, calls
// init once and execute for each frame, and gives it back through moduleCallback. It calls the
// virtual functions only, so their order is part of the boundary.

#include <memory>

#include "modules/face_detection/host_interface.h"

namespace TavroRTC::FDModule {

class FaceDetector;

/// All calls on one instance come one at a time; different instances may run side by side. Nothing
/// is thrown: memory running out is a false result.
class FDWrapper {
 public:
  FDWrapper();
  virtual ~FDWrapper();
  FDWrapper(const FDWrapper&) = delete;
  FDWrapper& operator=(const FDWrapper&) = delete;

  /// Makes the instance ready. Called again it begins afresh, without any tracked face. True if
  /// there is a network to run.
  virtual bool init();

  /// Finds and follows the faces in a frame. True: `faces` holds one rectangle for each face now
  /// tracked, possibly none, the oldest face first. False: `faces` is empty, and the next frame
  /// goes on from the faces before; so for a frame that can't be, before init, and without memory.
  /// A null `frame` or `faces` is false with nothing touched.
  virtual bool execute(const HostFrame* frame, FaceRectSequence* faces);

 private:
  std::shared_ptr<FaceDetector> detector_;
};

}  // namespace TavroRTC::FDModule
