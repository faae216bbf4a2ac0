#pragma once

// The faces of a frame twice over: as the network and the decoder give them for this frame alone,
// and as the detector's tracker makes them steady.

#include <memory>
#include <vector>

#include "host/core/face_rects.h"
#include "host/core/i420_frame.h"
#include "tools/jitter/steadiness.h"

namespace tavro::jitter {

class Detection {
 public:
  /// Null if the network can't be built.
  static std::unique_ptr<Detection> make();
  ~Detection();
  Detection(const Detection&) = delete;
  Detection& operator=(const Detection&) = delete;

  /// False if the detector refuses the frame.
  bool detect(const host::I420Frame& frame, double time);

  const std::vector<Sighting>& raw() const { return raw_; }  ///< of each frame so far
  const std::vector<Sighting>& tracked() const { return tracked_; }

 private:
  struct Parts;
  Detection();

  std::unique_ptr<Parts> parts_;
  std::vector<Sighting> raw_;
  std::vector<Sighting> tracked_;
};

}  // namespace tavro::jitter
