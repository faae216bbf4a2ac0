#pragma once

// FDWrapper: the instance that the host works with. The host gets one from moduleCallback, calls
// init once and execute for each frame, and returns it through moduleCallback. It calls the
// virtual functions only, so their order is part of the boundary: destructor, init, execute, in a
// table as the platform's own compiler lays it out.

#include <cstdint>
#include <memory>
#include <new>

#include "modules/face_detection/host_interface.h"

namespace TavroRTC::FDModule {

class FaceDetector;

/// All calls on one instance come one at a time; different instances may run side by side. Nothing
/// is thrown: memory running out is a false result.
class FDWrapper {
 public:
  FDWrapper();
#if defined(_WIN32) && !defined(_MSC_VER)
  // On Windows a virtual destructor has one place in the table, for a function that destroys the
  // object and, if bit 0 of `flags` is set, frees it. GCC would give it two places, so here is that
  // function by hand.
  virtual void* deletingDestructor(uint32_t flags) noexcept {
    this->~FDWrapper();
    if ((flags & 1U) != 0)
      ::operator delete(this);
    return this;
  }
  static void destroy(FDWrapper* wrapper) noexcept {
    if (wrapper != nullptr)
      wrapper->deletingDestructor(1);
  }
  ~FDWrapper();
#else
  virtual ~FDWrapper();
  /// Destroys the instance and frees it with the heap that it came from. Null does nothing.
  static void destroy(FDWrapper* wrapper) noexcept {
    delete wrapper;
  }
#endif
  FDWrapper(const FDWrapper&) = delete;
  FDWrapper& operator=(const FDWrapper&) = delete;

  /// Makes the instance ready. A second call starts again, without any tracked face. True if there
  /// is a network to run.
  virtual bool init();

  /// Finds and follows the faces in a frame. True: `faces` holds one rectangle for each tracked
  /// face, possibly none, the oldest face first. False: `faces` is empty and the tracked faces are
  /// as before; this is so if the frame is invalid, before init, and if there is no memory. A null
  /// `frame` or `faces` returns false, with nothing touched.
  virtual bool execute(const HostFrame* frame, FaceRectSequence* faces);

 private:
  std::shared_ptr<FaceDetector> detector_;
};

}  // namespace TavroRTC::FDModule
