#pragma once

// FrameBuffers: a frame of Python's, found behind the buffer protocol and not copied. It
// holds the buffers, so that their memory stays where it is while other threads of Python run.
//
//   2-D array of height * 3 / 2 rows    I420: Y, then U, then V, without gaps; even sizes
//   tuple or list of three 2-D arrays   I420: the planes Y, U, V with rows of any stride; any size
//   flat buffer and a size              I420: raw samples, such as bytes of a file; any size
//   3-D array (height, width, 3)        packed B, G, R with rows of any stride

#include <pybind11/pybind11.h>

#include <optional>
#include <utility>
#include <vector>

#include "modules/face_detection/frame_view.h"

namespace tavro::python {

struct PackedView {
  const uint8_t* samples = nullptr;
  int32_t stride = 0;  ///< bytes from one row to the next
};

class FrameBuffers {
 public:
  using Size = std::pair<int32_t, int32_t>;  ///< width and height

  /// Needs the interpreter's lock, as the destructor does. Throws what becomes a TypeError for an
  /// object that holds no 8-bit samples, a ValueError for one of another shape than those above.
  FrameBuffers(const pybind11::object& frame, const std::optional<Size>& size);

  int32_t width() const { return width_; }
  int32_t height() const { return height_; }
  /// Packed samples if it has some; it is planar otherwise.
  const std::optional<PackedView>& packed() const { return packed_; }
  const TavroRTC::FDModule::FrameView& planar() const { return planar_; }

 private:
  const pybind11::buffer_info& hold(const pybind11::object& object);
  void readPlanes(const pybind11::sequence& planes);
  void readFlat(const pybind11::object& frame, const Size& size);
  void readArray(const pybind11::buffer_info& info);
  void readStacked(const pybind11::buffer_info& info);
  void readPacked(const pybind11::buffer_info& info);
  void setSize(pybind11::ssize_t width, pybind11::ssize_t height);
  /// Y, U and V one after the other, the rows without gaps.
  void setContiguous(const void* samples);

  std::vector<pybind11::buffer_info> held_;
  int32_t width_ = 0;
  int32_t height_ = 0;
  std::optional<PackedView> packed_;
  TavroRTC::FDModule::FrameView planar_;
};

}  // namespace tavro::python
