#pragma once

// FaceRects: the host's result sequence. It lends the module a FaceRectSequence, to which the
// module appends, and frees the elements itself. One object serves any number of frames, so that a
// frame allocates nothing once the sequence has grown to the usual number of faces. And overlap():
// what a host tells faces apart by, since the module's rectangles have no names.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "modules/face_detection/host_interface.h"

namespace tavro::host {

class FaceRects {
 public:
  using FaceRect = TavroRTC::FDModule::FaceRect;
  using FaceRectSequence = TavroRTC::FDModule::FaceRectSequence;

  FaceRects() { sequence_.grow = &FaceRects::grow; }
  ~FaceRects() { std::free(sequence_.elements); }
  FaceRects(const FaceRects&) = delete;
  FaceRects& operator=(const FaceRects&) = delete;

  FaceRectSequence* sequence() { return &sequence_; }

  std::span<const FaceRect> view() const {
    return {sequence_.elements, static_cast<size_t>(sequence_.size)};
  }
  bool empty() const { return sequence_.size == 0; }
  void clear() { sequence_.size = 0; }
  /// False, with the sequence empty, if there is no memory.
  bool assign(std::span<const FaceRect> faces) {
    clear();
    if (!grow(&sequence_, static_cast<int32_t>(faces.size())))
      return false;
    std::ranges::copy(faces, sequence_.elements);
    sequence_.size = static_cast<int32_t>(faces.size());
    return true;
  }

 private:
  static bool grow(FaceRectSequence* sequence, int32_t capacity) {
    if (capacity <= sequence->capacity)
      return true;
    void* elements =
        std::realloc(sequence->elements, static_cast<size_t>(capacity) * sizeof(FaceRect));
    if (elements == nullptr)
      return false;
    sequence->elements = static_cast<FaceRect*>(elements);
    sequence->capacity = capacity;
    return true;
  }

  FaceRectSequence sequence_;
};

/// Intersection over union, from 0 to 1; 0 if a rectangle is empty. Any corners will do.
inline double overlap(const TavroRTC::FDModule::FaceRect& a,
                      const TavroRTC::FDModule::FaceRect& b) {
  const auto area = [](int64_t left, int64_t top, int64_t right, int64_t bottom) {
    return left < right && top < bottom
               ? static_cast<double>(right - left) * static_cast<double>(bottom - top)
               : 0.0;
  };
  const double shared = area(std::max(a.left, b.left), std::max(a.top, b.top),
                             std::min(a.right, b.right), std::min(a.bottom, b.bottom));
  if (shared == 0.0)
    return 0.0;
  return shared /
         (area(a.left, a.top, a.right, a.bottom) + area(b.left, b.top, b.right, b.bottom) - shared);
}

}  // namespace tavro::host
