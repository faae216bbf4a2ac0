// tavrofd._native: the detector for Python. A Detector is a search through one or several windows;
// a frame goes to it as it lies in Python's memory, BGR by way of an I420 frame that the detector
// keeps.

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/core/face_rects.h"
#include "host/core/frame_image.h"
#include "host/core/frame_search.h"
#include "host/core/i420_frame.h"
#include "host/core/module_host.h"
#include "image/image_dispatch.h"
#include "plugins/python/frame_buffers.h"

namespace py = pybind11;

namespace tavro::python {

namespace {

using host::I420Frame;
using TavroRTC::FDModule::FaceRect;

/// The registered name of the module in `path`, which stays loaded until the process ends: any part
/// of the program may have loaded it first.
std::string loadedModule(const std::string& path) {
  std::string name;
  const host::Status status = host::loadModule(path, &name);
  if (status.ok())
    return name;
  std::error_code failure;
  for (const host::ModuleInfo& module : host::modules())
    if (std::filesystem::equivalent(module.path, path, failure))
      return module.name;
  throw std::runtime_error(status.error);
}

std::string findDetector() {
  std::string path;
  const host::Status status = host::findDetector(path);
  if (!status.ok())
    throw std::runtime_error(status.error);
  return path;
}

using Region = std::array<int32_t, 4>;  ///< x, y, width, height

class Detector {
 public:
  Detector(const std::string& path, int32_t smallestFace, int32_t maxWindows, int32_t threads,
           const std::vector<Region>& regions)
      : options_{.windows = {.smallestFace = smallestFace, .mostWindows = maxWindows},
                 .threads = threads} {
    for (const auto& [x, y, width, height] : regions)
      options_.windows.regions.push_back({x, y, width, height});
    if (const host::Status wrong = host::FrameSearch::check(options_); !wrong.ok())
      throw py::value_error(wrong.error);
    py::gil_scoped_release released;
    host::SearchModules modules = {.whole = loadedModule(path)};
    const bool hasWindows = smallestFace > 0 || !regions.empty();
    if (const std::string square = hasWindows ? host::squareDetectorBeside(path) : "";
        !square.empty())
      modules.square = loadedModule(square);
    host::Status status;
    search_ = host::FrameSearch::open(std::move(modules), options_, status);
    if (!status.ok())
      throw std::runtime_error(status.error);
  }

  py::array_t<int32_t> detect(const py::object& frame,
                              const std::optional<FrameBuffers::Size>& size) {
    const FrameBuffers buffers(frame, size);
    const auto touches = [&](const host::Window& region) {
      return host::touchesFrame(region, buffers.width(), buffers.height());
    };
    if (const auto& regions = options_.windows.regions;
        !regions.empty() && std::ranges::none_of(regions, touches))
      throw py::value_error("no region lies in the frame");
    std::vector<FaceRect> faces;
    std::string failure;
    {
      py::gil_scoped_release released;
      // Without the interpreter's lock several threads may come here with the same detector.
      const std::lock_guard lock(mutex_);
      faces = run(buffers, failure);
    }
    if (!failure.empty() && PyErr_WarnEx(PyExc_RuntimeWarning, failure.c_str(), 1) != 0)
      throw py::error_already_set();
    py::array_t<int32_t> result({static_cast<py::ssize_t>(faces.size()), py::ssize_t{4}});
    auto cells = result.mutable_unchecked<2>();
    for (size_t i = 0; i < faces.size(); ++i) {
      const auto row = static_cast<py::ssize_t>(i);
      const int32_t corners[] = {faces[i].left, faces[i].top, faces[i].right, faces[i].bottom};
      for (py::ssize_t column = 0; column < 4; ++column)
        cells(row, column) = corners[column];
    }
    return result;
  }

  void reset() {
    py::gil_scoped_release released;
    const std::lock_guard lock(mutex_);
    if (const host::Status status = search_->restart(); !status.ok())
      throw std::runtime_error(status.error);
  }

 private:
  /// What one of several windows can't do is a `failure` beside the faces that the others see.
  std::vector<FaceRect> run(const FrameBuffers& buffers, std::string& failure) {
    const auto& planar = buffers.planar();
    const auto frame = buffers.packed()
                           ? convert(buffers)
                           : I420Frame::borrow(planar.width, planar.height, planar.y,
                                               planar.strideY, planar.u, planar.v, planar.strideUV);
    if (!frame)
      throw std::runtime_error("the detector refused the frame");
    const host::Status status = search_->search(*frame, faces_);
    if (!status.ok() && search_->windows().size() < 2)
      throw std::runtime_error(status.error);
    failure = status.error;
    return {faces_.view().begin(), faces_.view().end()};
  }

  /// Borrows the detector's own frame, with the packed samples in it.
  std::optional<I420Frame> convert(const FrameBuffers& buffers) {
    using namespace TavroRTC::FDModule;
    const int32_t width = buffers.width();
    const int32_t height = buffers.height();
    if (!converted_ || converted_->width() != width || converted_->height() != height)
      converted_ = I420Frame::allocate(width, height);
    if (!converted_)
      throw std::bad_alloc();
    const ImageDesc source = host::packedImage(buffers.packed()->samples, buffers.packed()->stride,
                                               width, height, ImageFormat::Bgr24);
    if (convertImage(source, host::imageOf(*converted_), ColorOp::Bgr24ToI420) != 0)
      return std::nullopt;
    return I420Frame::borrow(width, height, converted_->planeData(0), converted_->planeStride(0),
                             converted_->planeData(1), converted_->planeData(2),
                             converted_->planeStride(1));
  }

  std::mutex mutex_;
  host::SearchOptions options_;
  std::unique_ptr<host::FrameSearch> search_;
  host::FaceRects faces_;
  std::optional<I420Frame> converted_;
};

}  // namespace

PYBIND11_MODULE(_native, module) {
  module.doc() = "The detector's instances; use them through tavrofd.Detector.";
  module.attr("__version__") = TAVRO_VERSION;
  module.def("find_detector", &findDetector,
             "The file of the detector that belongs to this package.");
  py::class_<Detector>(module, "Detector")
      .def(py::init<const std::string&, int32_t, int32_t, int32_t, const std::vector<Region>&>(),
           py::arg("module"), py::arg("smallest_face"), py::arg("max_windows"), py::arg("threads"),
           py::arg("roi"))
      .def("detect", &Detector::detect, py::arg("frame"), py::arg("size") = py::none(),
           R"(Finds and follows the faces in the next frame of a video.

frame is one of these, with samples of uint8 in C order:

  I420  an array of the shape (height * 3 // 2, width), even sizes only
  I420  a tuple of the planes (y, u, v), rows of any stride, any size: the chroma
        planes have ((height + 1) // 2, (width + 1) // 2) samples
  I420  any flat buffer, such as bytes, with size=(width, height), any size
  BGR   an array of the shape (height, width, 3), rows of any stride

I420 is read where it lies; BGR is converted to I420 (BT.601, limited range) first.

Returns an int32 array of the shape (n, 4), the oldest face first: left, top, right,
bottom in pixels of the frame. Width is right - left. A face at the border may reach
beyond the frame.

The interpreter's lock is released meanwhile. Calls on one detector from several
threads come one after the other.

Raises TypeError for anything but buffers of uint8, ValueError for other shapes,
strides and sizes than these (sides are 1 to 32768) and if no region lies in the frame.
If there is no memory for one of several windows, a RuntimeWarning says so, and the
faces are those that the other windows show.)")
      .def("reset", &Detector::reset, "Forgets the faces: the next frame is of another video.");
}

}  // namespace tavro::python
