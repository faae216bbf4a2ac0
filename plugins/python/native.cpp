// tavrofd._native: the detector for Python. A Detector is one instance of the module; a frame goes
// to it as it lies in Python's memory, BGR by way of an I420 frame that the detector keeps.

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <filesystem>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/core/face_rects.h"
#include "host/core/frame_image.h"
#include "host/core/i420_frame.h"
#include "host/core/module_host.h"
#include "image/image_dispatch.h"
#include "modules/face_detection/fd_wrapper.h"
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

class Detector {
 public:
  explicit Detector(const std::string& path) {
    py::gil_scoped_release released;
    const host::Status status = host::createInstance(loadedModule(path), &instance_);
    if (!status.ok())
      throw std::runtime_error(status.error);
    if (!instance_->init()) {
      static_cast<void>(host::destroyInstance(instance_));
      throw std::runtime_error("the detector can't be prepared");
    }
  }
  ~Detector() { static_cast<void>(host::destroyInstance(instance_)); }
  Detector(const Detector&) = delete;
  Detector& operator=(const Detector&) = delete;

  py::array_t<int32_t> detect(const py::object& frame,
                              const std::optional<FrameBuffers::Size>& size) {
    const FrameBuffers buffers(frame, size);
    std::vector<FaceRect> faces;
    {
      py::gil_scoped_release released;
      // Without the interpreter's lock several threads may come here with the same detector.
      const std::lock_guard lock(mutex_);
      faces = run(buffers);
    }
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
    if (!instance_->init())
      throw std::runtime_error("the detector can't be prepared");
  }

 private:
  std::vector<FaceRect> run(const FrameBuffers& buffers) {
    const auto& planar = buffers.planar();
    const auto frame = buffers.packed()
                           ? convert(buffers)
                           : I420Frame::borrow(planar.width, planar.height, planar.y,
                                               planar.strideY, planar.u, planar.v, planar.strideUV);
    if (!frame || !instance_->execute(&*frame, faces_.sequence()))
      throw std::runtime_error("the detector refused the frame");
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
  TavroRTC::FDModule::FDWrapper* instance_ = nullptr;
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
      .def(py::init<const std::string&>(), py::arg("module"))
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
strides and sizes than these; sides are 1 to 32768.)")
      .def("reset", &Detector::reset, "Forgets the faces: the next frame is of another video.");
}

}  // namespace tavro::python
