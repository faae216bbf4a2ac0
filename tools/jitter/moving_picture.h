#pragma once

// A clip whose truth is known: a photograph that slides to and fro behind the frame, so that a face
// in it moves by a known way. Beyond its edges the photograph is mirrored.

#include <cstdint>
#include <optional>

#include "host/core/i420_frame.h"
#include "tools/jitter/steadiness.h"

namespace tavro::jitter {

class MovingPicture {
 public:
  static constexpr int32_t framesPerSecond = 30;
  static constexpr size_t frameCount = 300;

  /// A swing takes two seconds; `reach` is how far it goes to each side, in face sizes.
  MovingPicture(const host::I420Frame& picture, const FaceRect& face, double reach)
      : picture_(picture), face_(face), reach_(reach) {}

  /// The frame, of the photograph's size. Nullopt if there is no memory.
  std::optional<host::I420Frame> frame(size_t index) const;
  /// Where the face is in it.
  FaceRect face(size_t index) const;
  static double time(size_t index) { return static_cast<double>(index) / framesPerSecond; }

 private:
  struct Shift {
    int32_t x = 0;
    int32_t y = 0;
  };
  Shift shift(size_t index) const;

  const host::I420Frame& picture_;
  FaceRect face_;
  double reach_;
};

}  // namespace tavro::jitter
