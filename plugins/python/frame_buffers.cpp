#include "plugins/python/frame_buffers.h"

#include <cstdint>
#include <limits>
#include <string>

#include "host/core/i420_frame.h"

namespace py = pybind11;

namespace tavro::python {

namespace {

using host::planeExtent;

constexpr py::ssize_t largestSize = 32768;

std::string shapeOf(const py::buffer_info& info) {
  std::string text = "(";
  for (const py::ssize_t extent : info.shape)
    text += (text.size() > 1 ? ", " : "") + std::to_string(extent);
  return text + ")";
}

[[noreturn]] void refuse(const std::string& what) {
  throw py::value_error(what);
}

/// Bytes from row to row of samples that lie side by side within a row.
int32_t rowStride(const py::buffer_info& info, py::ssize_t rowBytes) {
  if (info.shape[0] == 1)
    return static_cast<int32_t>(rowBytes);  // such an array may claim any stride
  const py::ssize_t stride = info.strides[0];
  if (stride < rowBytes || stride > std::numeric_limits<int32_t>::max())
    refuse("rows must follow one another in memory: " + std::to_string(stride) +
           " bytes from row to row are refused; numpy.ascontiguousarray() makes a frame that fits");
  return static_cast<int32_t>(stride);
}

void needAdjacent(const py::buffer_info& info, size_t dimension, py::ssize_t stride) {
  if (info.shape[dimension] > 1 && info.strides[dimension] != stride)
    refuse(
        "the samples of a row must lie side by side; numpy.ascontiguousarray() makes them do so");
}

}  // namespace

FrameBuffers::FrameBuffers(const py::object& frame, const std::optional<Size>& size) {
  held_.reserve(host::planeCount);
  if (size.has_value())
    readFlat(frame, *size);
  else if (py::isinstance<py::tuple>(frame) || py::isinstance<py::list>(frame))
    readPlanes(frame);
  else
    readArray(hold(frame));
}

void FrameBuffers::readArray(const py::buffer_info& info) {
  if (info.ndim == 2)
    readStacked(info);
  else if (info.ndim == 3)
    readPacked(info);
  else
    refuse(
        "a frame has the shape (height * 3 / 2, width) for I420 or (height, width, 3) for BGR, "
        "not " +
        shapeOf(info) + "; flat samples need size=(width, height)");
}

const py::buffer_info& FrameBuffers::hold(const py::object& object) {
  if (PyObject_CheckBuffer(object.ptr()) == 0)
    throw py::type_error("a frame is made of arrays or buffers of uint8, not of " +
                         std::string(py::str(py::type::of(object).attr("__name__"))));
  const py::buffer_info& info =
      held_.emplace_back(py::reinterpret_borrow<py::buffer>(object).request());
  if (info.itemsize != 1 || info.format.empty() || info.format.back() != 'B')
    throw py::type_error("samples must be uint8, not of the format '" + info.format + "'");
  return info;
}

void FrameBuffers::setSize(py::ssize_t width, py::ssize_t height) {
  if (width < 1 || height < 1 || width > largestSize || height > largestSize)
    refuse("a frame of " + std::to_string(width) + " by " + std::to_string(height) +
           " pixels: both must be 1 to " + std::to_string(largestSize));
  width_ = static_cast<int32_t>(width);
  height_ = static_cast<int32_t>(height);
  planar_.width = width_;
  planar_.height = height_;
}

void FrameBuffers::setContiguous(const void* samples) {
  const auto* first = static_cast<const uint8_t*>(samples);
  const auto luma = static_cast<py::ssize_t>(width_) * height_;
  planar_.strideY = width_;
  planar_.strideUV = planeExtent(1, width_);
  planar_.y = first;
  planar_.u = first + luma;
  planar_.v = planar_.u + static_cast<py::ssize_t>(planar_.strideUV) * planeExtent(1, height_);
}

void FrameBuffers::readFlat(const py::object& frame, const Size& size) {
  const py::buffer_info& info = hold(frame);
  setSize(size.first, size.second);
  const py::ssize_t chroma =
      static_cast<py::ssize_t>(planeExtent(1, width_)) * planeExtent(1, height_);
  const py::ssize_t bytes = static_cast<py::ssize_t>(width_) * height_ + 2 * chroma;
  if (info.ndim != 1 || info.size != bytes)
    refuse("I420 of " + std::to_string(width_) + " by " + std::to_string(height_) + " pixels is " +
           std::to_string(bytes) + " bytes in one dimension, not " + shapeOf(info));
  needAdjacent(info, 0, 1);
  setContiguous(info.ptr);
}

void FrameBuffers::readStacked(const py::buffer_info& info) {
  const py::ssize_t rows = info.shape[0];
  const py::ssize_t width = info.shape[1];
  if (rows % 3 != 0 || width % 2 != 0)
    refuse("the shape " + shapeOf(info) +
           " isn't (height * 3 / 2, width) of an even size: give planes (y, u, v) or flat samples "
           "for an odd one, and (height, width, 3) for BGR");
  setSize(width, rows / 3 * 2);
  needAdjacent(info, 1, 1);
  if (rowStride(info, width) != width)
    refuse("I420 in one array has no gaps between its rows; give the planes (y, u, v) instead");
  setContiguous(info.ptr);
}

void FrameBuffers::readPlanes(const py::sequence& planes) {
  if (planes.size() != static_cast<size_t>(host::planeCount))
    refuse("I420 has three planes, not " + std::to_string(planes.size()));
  const uint8_t* samples[host::planeCount] = {};
  int32_t strides[host::planeCount] = {};
  for (int32_t plane = 0; plane < host::planeCount; ++plane) {
    const auto index = static_cast<size_t>(plane);
    const py::buffer_info& info = hold(planes[index]);
    if (info.ndim != 2)
      refuse("a plane has two dimensions, not the shape " + shapeOf(info));
    if (plane == 0)
      setSize(info.shape[1], info.shape[0]);
    const int32_t width = planeExtent(plane, width_);
    const int32_t height = planeExtent(plane, height_);
    if (info.shape[1] != width || info.shape[0] != height)
      refuse("plane " + std::to_string(plane) + " of such a frame has the shape (" +
             std::to_string(height) + ", " + std::to_string(width) + "), not " + shapeOf(info));
    needAdjacent(info, 1, 1);
    strides[plane] = rowStride(info, width);
    samples[plane] = static_cast<const uint8_t*>(info.ptr);
  }
  if (planeExtent(1, height_) > 1 && strides[1] != strides[2])
    refuse("U and V must have the same number of bytes from row to row");
  planar_.y = samples[0];
  planar_.u = samples[1];
  planar_.v = samples[2];
  planar_.strideY = strides[0];
  planar_.strideUV = strides[1];
}

void FrameBuffers::readPacked(const py::buffer_info& info) {
  if (info.shape[2] != 3)
    refuse("a packed frame has the shape (height, width, 3), not " + shapeOf(info));
  setSize(info.shape[1], info.shape[0]);
  needAdjacent(info, 2, 1);
  needAdjacent(info, 1, 3);
  packed_ = PackedView{static_cast<const uint8_t*>(info.ptr), rowStride(info, 3 * info.shape[1])};
}

}  // namespace tavro::python
