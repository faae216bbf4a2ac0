#include "plugins/python/frame_buffers.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <iterator>
#include <limits>
#include <new>

#include "host/core/frame_image.h"
#include "image/image_dispatch.h"

namespace py = pybind11;

namespace tavro::python {

namespace {

using host::I420Frame;
using host::planeExtent;
using TavroRTC::FDModule::ColorOp;
using TavroRTC::FDModule::ImageDesc;

constexpr py::ssize_t largestSize = 32768;

constexpr const char* stackedShape =
    "(height * 3 / 2, width) of an even size (give planes or flat samples for an odd one)";
constexpr const char* threeBytes = "(height, width, 3)";
constexpr const char* fourBytes = "(height, width, 4)";

constexpr PixelFormat formats[] = {
    {"i420", stackedShape, 0},
    {"nv12", stackedShape, 0, ColorOp::Nv12ToI420},
    {"bgr", threeBytes, 3, ColorOp::Bgr24ToI420},
    {"rgb", threeBytes, 3, ColorOp::Rgb24ToI420},
    {"bgra", fourBytes, 4, ColorOp::Bgra32ToI420},
    {"rgba", fourBytes, 4, ColorOp::Rgba32ToI420},
    {"gray", "(height, width)", 1},
};
constexpr const PixelFormat& i420 = formats[0];
constexpr const PixelFormat& nv12 = formats[1];

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
py::ssize_t rowStride(const py::buffer_info& info, py::ssize_t rowBytes) {
  if (info.shape[0] == 1)
    return rowBytes;  // such an array may claim any stride
  const py::ssize_t stride = info.strides[0];
  if (stride < rowBytes || stride > std::numeric_limits<int32_t>::max())
    refuse("rows must follow one another in memory: " + std::to_string(stride) +
           " bytes from row to row are refused; numpy.ascontiguousarray() makes a frame that fits");
  return stride;
}

/// For samples of a byte each, whose dimensions behind the first are those of a row.
void needAdjacent(const py::buffer_info& info) {
  py::ssize_t stride = 1;
  for (size_t dimension = info.shape.size(); dimension-- > 1; stride *= info.shape[dimension])
    if (info.shape[dimension] > 1 && info.strides[dimension] != stride)
      refuse(
          "the samples of a row must lie side by side; numpy.ascontiguousarray() makes them do so");
}

bool hasShapeOf(const PixelFormat& format, const py::buffer_info& info) {
  if (info.ndim == 3)
    return format.pixelBytes > 1 && info.shape[2] == format.pixelBytes;
  const bool isStacked = format.pixelBytes == 0;
  return info.ndim == 2 &&
         (isStacked ? info.shape[0] % 3 == 0 && info.shape[1] % 2 == 0 : format.pixelBytes == 1);
}

py::ssize_t bytesOf(const PixelFormat& format, py::ssize_t width, py::ssize_t height) {
  const py::ssize_t pixels = width * height;
  return format.pixelBytes > 0 ? pixels * format.pixelBytes
                               : pixels + 2 * ((width + 1) / 2) * ((height + 1) / 2);
}

/// The one format that fits; null if none does.
template <typename Fits>
const PixelFormat* onlyOne(Fits&& fits, const std::string& shape) {
  const PixelFormat* found = nullptr;
  std::string names;
  for (const PixelFormat& format : formats)
    if (fits(format)) {
      names += (found != nullptr ? ", " : "") + std::string(format.name);
      found = &format;
    }
  if (names.find(',') != std::string::npos)
    refuse("the shape " + shape + " may be " + names + ": say which with format=");
  return found;
}

/// The format of a picture of PIL; null for any other object.
const PixelFormat* formatOfPicture(const py::object& frame) {
  if (!py::hasattr(frame, "getbands") || !py::hasattr(frame, "mode"))
    return nullptr;
  const std::string mode = py::str(frame.attr("mode"));
  if (mode != "RGB" && mode != "RGBA" && mode != "L")
    refuse("a picture must have the mode RGB, RGBA or L, not " + mode + ": convert(\"RGB\") helps");
  return &findFormat(mode == "RGB" ? "rgb" : mode == "RGBA" ? "rgba" : "gray");
}

/// What black to white in full range are in the limited range of the other formats' luma.
std::array<uint8_t, 256> lumaOfGray() {
  std::array<uint8_t, 256> luma = {};
  std::array<uint8_t, 3 * luma.size()> grays = {};
  for (size_t i = 0; i < grays.size(); ++i)
    grays[i] = static_cast<uint8_t>(i / 3);
  constexpr auto count = static_cast<int32_t>(luma.size());
  using TavroRTC::FDModule::ImageFormat;
  convertImage(host::packedImage(grays.data(), 3 * count, count, 1, ImageFormat::Bgr24),
               host::packedImage(luma.data(), count, count, 1, ImageFormat::Gray8),
               ColorOp::Bgr24ToLuma);
  return luma;
}

void convertGray(const ImageDesc& gray, I420Frame& frame) {
  static const std::array<uint8_t, 256> luma = lumaOfGray();
  for (ptrdiff_t y = 0; y < frame.height(); ++y)
    std::transform(gray.planes[0] + y * gray.strides[0],
                   gray.planes[0] + y * gray.strides[0] + frame.width(),
                   frame.writablePlane(0) + y * frame.planeStride(0),
                   [](uint8_t sample) { return luma[sample]; });
  for (int32_t plane = 1; plane < host::planeCount; ++plane)
    std::fill_n(frame.writablePlane(plane),
                ptrdiff_t{frame.planeStride(plane)} * frame.planeHeight(plane), uint8_t{128});
}

}  // namespace

const PixelFormat& findFormat(const std::string& name) {
  std::string names;
  for (const PixelFormat& format : formats) {
    if (name == format.name)
      return format;
    names += (names.empty() ? "" : ", ") + std::string(format.name);
  }
  refuse("a format is one of " + names + ", not " + name);
}

FrameBuffers::FrameBuffers(const py::object& frame, const std::optional<Size>& size,
                           const PixelFormat* wanted)
    : format_(wanted) {
  held_.reserve(host::planeCount);
  if (size.has_value()) {
    setSize(size->first, size->second);
    readFlat(hold(frame));
  } else if (py::isinstance<py::tuple>(frame) || py::isinstance<py::list>(frame)) {
    readPlanes(frame);
  } else {
    const PixelFormat* itself = formatOfPicture(frame);
    if (itself != nullptr && wanted != nullptr && itself != wanted)
      refuse("the picture is " + std::string(itself->name) + ", not " + wanted->name);
    format_ = itself != nullptr ? itself : wanted;
    readArray(hold(frame));
  }
}

void FrameBuffers::readArray(const py::buffer_info& info) {
  if (format_ == nullptr) {
    format_ =
        onlyOne([&](const PixelFormat& format) { return hasShapeOf(format, info); }, shapeOf(info));
    if (format_ == nullptr)
      refuse("no format has the shape " + shapeOf(info) +
             "; flat samples need size=(width, height)");
  } else if (!hasShapeOf(*format_, info)) {
    refuse(std::string(format_->name) + " has the shape " + format_->shape + ", not " +
           shapeOf(info));
  }
  if (format_->pixelBytes == 0)
    return readStacked(info);
  setSize(info.shape[1], info.shape[0]);
  needAdjacent(info);
  setPlane(0, info.ptr, rowStride(info, info.shape[1] * format_->pixelBytes));
}

const py::buffer_info& FrameBuffers::hold(const py::object& object) {
  py::object buffer = object;
  if (PyObject_CheckBuffer(object.ptr()) == 0) {
    if (!py::hasattr(object, "__array_interface__") && !py::hasattr(object, "__array__"))
      throw py::type_error("a frame is made of arrays or buffers of uint8, not of " +
                           std::string(py::str(py::type::of(object).attr("__name__"))));
    buffer = py::module_::import("numpy").attr("asarray")(object);
  }
  const py::buffer_info& info =
      held_.emplace_back(py::reinterpret_borrow<py::buffer>(buffer).request());
  if (info.itemsize != 1 || info.format.empty() || info.format.back() != 'B')
    throw py::type_error("samples must be uint8, not of the format '" + info.format + "'");
  return info;
}

void FrameBuffers::setSize(py::ssize_t width, py::ssize_t height) {
  if (width < 1 || height < 1 || width > largestSize || height > largestSize)
    refuse("a frame of " + std::to_string(width) + " by " + std::to_string(height) +
           " pixels: both must be 1 to " + std::to_string(largestSize));
  image_.widths[0] = static_cast<int32_t>(width);
  image_.heights[0] = static_cast<int32_t>(height);
}

void FrameBuffers::setPlane(int32_t plane, void* samples, py::ssize_t stride) {
  image_.planes[plane] = static_cast<uint8_t*>(samples);
  image_.strides[plane] = static_cast<int32_t>(stride);
}

void FrameBuffers::setContiguous(void* samples) {
  const py::ssize_t chroma = planeExtent(1, width());
  auto* first = static_cast<uint8_t*>(samples);
  setPlane(0, first, width() * std::max<py::ssize_t>(format_->pixelBytes, 1));
  if (format_->pixelBytes > 0)
    return;
  uint8_t* second = first + static_cast<py::ssize_t>(width()) * height();
  if (format_ == &nv12)
    return setPlane(1, second, 2 * chroma);
  setPlane(1, second, chroma);
  setPlane(2, second + chroma * planeExtent(1, height()), chroma);
}

void FrameBuffers::readFlat(const py::buffer_info& info) {
  const auto fits = [&](const PixelFormat& format) {
    return info.ndim == 1 && info.size == bytesOf(format, width(), height());
  };
  const std::string size = std::to_string(width()) + " by " + std::to_string(height()) + " pixels";
  if (format_ == nullptr)
    format_ = onlyOne(fits, shapeOf(info) + " for " + size);
  else if (!fits(*format_))
    refuse(std::string(format_->name) + " of " + size + " is " +
           std::to_string(bytesOf(*format_, width(), height())) + " bytes in one dimension, not " +
           shapeOf(info));
  if (format_ == nullptr)
    refuse("no format has the shape " + shapeOf(info) + " for " + size);
  if (info.shape[0] > 1 && info.strides[0] != 1)
    refuse("flat samples must lie side by side; numpy.ascontiguousarray() makes them do so");
  setContiguous(info.ptr);
}

void FrameBuffers::readStacked(const py::buffer_info& info) {
  setSize(info.shape[1], info.shape[0] / 3 * 2);
  needAdjacent(info);
  if (rowStride(info, width()) != width())
    refuse(std::string(format_->name) +
           " in one array has no gaps between its rows; give its planes instead");
  setContiguous(info.ptr);
}

void FrameBuffers::readPlanes(const py::sequence& planes) {
  if (planes.size() != 2 && planes.size() != 3)
    refuse("i420 has three planes, nv12 two, not " + std::to_string(planes.size()));
  const PixelFormat& itself = planes.size() == 3 ? i420 : nv12;
  if (format_ != nullptr && format_ != &itself)
    refuse(std::to_string(planes.size()) + " planes are " + itself.name + ", not " + format_->name);
  format_ = &itself;
  for (size_t plane = 0; plane < planes.size(); ++plane) {
    const py::buffer_info& info = hold(planes[plane]);
    const bool isPairs = plane == 1 && format_ == &nv12;
    if (info.ndim != 2 && !(isPairs && info.ndim == 3))
      refuse("a plane has two dimensions, not the shape " + shapeOf(info));
    if (plane == 0)
      setSize(info.shape[1], info.shape[0]);
    const auto index = static_cast<int32_t>(plane);
    const int32_t rowBytes = planeExtent(index, width()) * (isPairs ? 2 : 1);
    const int32_t rows = planeExtent(index, height());
    const bool hasPairs = info.ndim == 2 || info.shape[2] == 2;
    if (!hasPairs || info.shape[0] != rows || info.size != py::ssize_t{rows} * rowBytes)
      refuse("plane " + std::to_string(plane) + " of such a frame has the shape (" +
             std::to_string(rows) + ", " + std::to_string(rowBytes) + "), not " + shapeOf(info));
    needAdjacent(info);
    setPlane(index, info.ptr, rowStride(info, rowBytes));
  }
  if (format_ == &i420 && planeExtent(1, height()) > 1 && image_.strides[1] != image_.strides[2])
    refuse("U and V must have the same number of bytes from row to row");
}

std::optional<I420Frame> FrameConverter::read(const FrameBuffers& buffers) {
  const ImageDesc& image = buffers.image();
  const int32_t width = buffers.width();
  const int32_t height = buffers.height();
  if (&buffers.format() == &i420)
    return I420Frame::borrow(width, height, image.planes[0], image.strides[0], image.planes[1],
                             image.planes[2], image.strides[1]);
  if (!converted_ || converted_->width() != width || converted_->height() != height)
    converted_ = I420Frame::allocate(width, height);
  if (!converted_)
    throw std::bad_alloc();
  if (!buffers.format().toI420.has_value())
    convertGray(image, *converted_);
  else if (convertImage(image, host::imageOf(*converted_), *buffers.format().toI420) != 0)
    return std::nullopt;
  return I420Frame::borrow(width, height, converted_->planeData(0), converted_->planeStride(0),
                           converted_->planeData(1), converted_->planeData(2),
                           converted_->planeStride(1));
}

}  // namespace tavro::python
