#pragma once

// FrameBuffers: a frame of Python's, found behind the buffer protocol or NumPy's array interface
// and not copied. It holds the buffers, so that their memory stays where it is while other threads
// of Python run.
//
//   2-D array of height * 3 / 2 rows    i420 or nv12 without gaps; even sizes
//   2-D array                           gray with rows of any stride
//   3-D array (height, width, bytes)    packed pixels with rows of any stride
//   two or three planes                 nv12 or i420 with rows of any stride; any size
//   flat buffer and a size              any format, without gaps; any size
//   picture of PIL                      rgb, rgba or gray, as its mode says
//
// A shape that fits several formats is refused unless the caller names one.
//
// FrameConverter: the same frame as the module reads it.

#include <pybind11/pybind11.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/core/i420_frame.h"
#include "image/image_desc.h"

namespace tavro::python {

/// What a frame's samples mean.
struct PixelFormat {
  const char* name;
  const char* shape;   ///< of one array, for messages
  int32_t pixelBytes;  ///< of packed pixels; 0: planes in 4:2:0 sampling
  std::optional<TavroRTC::FDModule::ColorOp> toI420 = {};
};

/// Throws what becomes a ValueError for a name that isn't one.
const PixelFormat& findFormat(const std::string& name);

class FrameBuffers {
 public:
  using Size = std::pair<int32_t, int32_t>;  ///< width and height

  /// Null for `wanted`: what the object's shape or type says. Needs the interpreter's lock, as the
  /// destructor does. Throws what becomes a TypeError for an object that holds no 8-bit samples, a
  /// ValueError for one of another shape than those above, or if two formats have its shape.
  FrameBuffers(const pybind11::object& frame, const std::optional<Size>& size,
               const PixelFormat* wanted);

  const PixelFormat& format() const { return *format_; }
  int32_t width() const { return image_.widths[0]; }
  int32_t height() const { return image_.heights[0]; }
  /// Its planes, which are only read.
  const TavroRTC::FDModule::ImageDesc& image() const { return image_; }

 private:
  const pybind11::buffer_info& hold(const pybind11::object& object);
  void readPlanes(const pybind11::sequence& planes);
  void readFlat(const pybind11::buffer_info& info);
  void readArray(const pybind11::buffer_info& info);
  void readStacked(const pybind11::buffer_info& info);
  void setSize(pybind11::ssize_t width, pybind11::ssize_t height);
  void setPlane(int32_t plane, void* samples, pybind11::ssize_t stride);
  /// All planes one after the other, the rows without gaps.
  void setContiguous(void* samples);

  std::vector<pybind11::buffer_info> held_;
  const PixelFormat* format_ = nullptr;  ///< null until it is known
  TavroRTC::FDModule::ImageDesc image_;
};

class FrameConverter {
 public:
  /// A frame over the buffers, or over the converter's own memory; good until the next call and as
  /// long as the buffers. Empty if the conversion is refused. May throw std::bad_alloc.
  std::optional<host::I420Frame> read(const FrameBuffers& buffers);

 private:
  std::optional<host::I420Frame> converted_;
};

}  // namespace tavro::python
