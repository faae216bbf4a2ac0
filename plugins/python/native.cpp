// tavrofd._native: the detector for Python. A Detector is a search through one or several windows;
// a frame goes to it as it lies in Python's memory if it is I420, otherwise by way of an I420 frame
// that the detector keeps.

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

#include "host/core/face_numbers.h"
#include "host/core/face_rects.h"
#include "host/core/frame_search.h"
#include "host/core/module_host.h"
#include "plugins/python/frame_buffers.h"

namespace py = pybind11;

namespace tavro::python {

namespace {

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
           const std::vector<Region>& regions, const std::optional<std::string>& format,
           bool hasNumbers)
      : options_{.windows = {.smallestFace = smallestFace, .mostWindows = maxWindows},
                 .threads = threads},
        format_(format ? &findFormat(*format) : nullptr),
        hasNumbers_(hasNumbers) {
    for (const auto& [x, y, width, height] : regions)
      options_.windows.regions.push_back({x, y, width, height});
    if (const host::Status wrong = host::FrameSearch::check(options_); !wrong.ok())
      throw py::value_error(wrong.error);
    py::gil_scoped_release released;
    host::SearchModules modules = {.whole = loadedModule(path)};
    if (const std::string square =
            options_.windows.hasWindows() ? host::squareDetectorBeside(path) : "";
        !square.empty())
      modules.square = loadedModule(square);
    host::Status status;
    search_ = host::FrameSearch::open(std::move(modules), options_, status);
    if (!status.ok())
      throw std::runtime_error(status.error);
  }

  py::array_t<int32_t> detect(const py::object& frame,
                              const std::optional<FrameBuffers::Size>& size,
                              const std::optional<std::string>& format,
                              std::optional<double> time) {
    const FrameBuffers buffers(frame, size, format ? &findFormat(*format) : format_);
    const auto touches = [&](const host::Window& region) {
      return host::touchesFrame(region, buffers.width(), buffers.height());
    };
    if (const auto& regions = options_.windows.regions;
        !regions.empty() && std::ranges::none_of(regions, touches))
      throw py::value_error("no region lies in the frame");
    Findings found;
    {
      py::gil_scoped_release released;
      // Without the interpreter's lock several threads may come here with the same detector.
      const std::lock_guard lock(mutex_);
      found = run(buffers, time);
    }
    if (!found.failure.empty() && PyErr_WarnEx(PyExc_RuntimeWarning, found.failure.c_str(), 1) != 0)
      throw py::error_already_set();
    const py::ssize_t columns = hasNumbers_ ? 5 : 4;
    py::array_t<int32_t> result({static_cast<py::ssize_t>(found.faces.size()), columns});
    auto cells = result.mutable_unchecked<2>();
    for (size_t i = 0; i < found.faces.size(); ++i) {
      const FaceRect& face = found.faces[i];
      const int32_t values[] = {face.left, face.top, face.right, face.bottom, found.numbers[i]};
      for (py::ssize_t column = 0; column < columns; ++column)
        cells(static_cast<py::ssize_t>(i), column) = values[column];
    }
    return result;
  }

  void reset() {
    py::gil_scoped_release released;
    const std::lock_guard lock(mutex_);
    numbers_.forget();
    if (const host::Status status = search_->restart(); !status.ok())
      throw std::runtime_error(status.error);
  }

 private:
  struct Findings {
    std::vector<FaceRect> faces;
    std::vector<int32_t> numbers;
    std::string failure;  ///< what one of several windows can't do; the faces are the others'
  };

  Findings run(const FrameBuffers& buffers, std::optional<double> time) {
    const auto frame = converter_.read(buffers);
    if (!frame)
      throw std::runtime_error("the detector refused the frame");
    const host::Status status = search_->search(*frame, faces_);
    if (!status.ok() && search_->windows().size() < 2)
      throw std::runtime_error(status.error);
    time_ = time.value_or(time_ + usualInterval);
    const auto numbers = numbers_.update(faces_.view(), time_);
    return {.faces = {faces_.view().begin(), faces_.view().end()},
            .numbers = {numbers.begin(), numbers.end()},
            .failure = status.error};
  }

  static constexpr double usualInterval = 0.04;  // seconds from frame to frame

  std::mutex mutex_;
  host::SearchOptions options_;
  const PixelFormat* format_;  ///< of all frames; null: what each one says
  bool hasNumbers_;
  std::unique_ptr<host::FrameSearch> search_;
  host::FaceRects faces_;
  FrameConverter converter_;
  host::FaceNumbers numbers_;
  double time_ = 0.0;  ///< of the latest frame
};

}  // namespace

PYBIND11_MODULE(_native, module) {
  module.doc() = "The detector's instances; use them through tavrofd.Detector.";
  module.attr("__version__") = TAVRO_VERSION;
  module.def("find_detector", &findDetector,
             "The file of the detector that belongs to this package.");
  py::class_<Detector>(module, "Detector")
      .def(py::init<const std::string&, int32_t, int32_t, int32_t, const std::vector<Region>&,
                    const std::optional<std::string>&, bool>(),
           py::arg("module"), py::arg("smallest_face"), py::arg("max_windows"), py::arg("threads"),
           py::arg("roi"), py::arg("format"), py::arg("numbers"))
      .def("detect", &Detector::detect, py::arg("frame"), py::arg("size") = py::none(),
           py::kw_only(), py::arg("format") = py::none(), py::arg("time") = py::none(),
           R"(Finds and follows the faces in the next frame of a video.

frame has samples of uint8 in C order. format, or that of the detector, says what they
are: "i420", "nv12", "bgr", "rgb", "bgra", "rgba" (alpha is ignored) or "gray" (0 is
black, 255 white). It may be left out where only one format has the shape.

  (height * 3 // 2, width)   an array of i420 or nv12, even sizes only
  (y, u, v) or (y, uv)       i420 or nv12 as a tuple of planes, rows of any stride, any
                             size: chroma has ((height + 1) // 2, (width + 1) // 2)
                             samples, or as many pairs
  (height, width, 3 or 4)    an array of packed pixels, rows of any stride
  (height, width)            an array of gray, rows of any stride
  flat, such as bytes        any format with size=(width, height), any size
  a picture of PIL           its mode is the format: RGB, RGBA or L

I420 is read where it lies. The others are converted to I420 (BT.601, limited range)
first.

Returns an int32 array of the shape (n, 4), the oldest face first: left, top, right,
bottom in pixels of the frame. Width is right - left. A face at the border may reach
beyond the frame. With Detector(numbers=True) a fifth column has the face's number, from
1, which it keeps while it is followed, also over a gap of up to a second. time is the
frame's, in seconds, for that; without it frames count as 0.04 s apart.

The interpreter's lock is released meanwhile. Calls on one detector from several
threads come one after the other.

Raises TypeError for anything but buffers and array interfaces of uint8, ValueError
for other shapes, strides and sizes than these (sides are 1 to 32768), for a shape that
several formats have, and if no region lies in the frame.
If there is no memory for one of several windows, a RuntimeWarning says so, and the
faces are those that the other windows show.)")
      .def("reset", &Detector::reset, "Forgets the faces: the next frame is of another video.");
}

}  // namespace tavro::python
