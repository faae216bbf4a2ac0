// The smallest host there is: loads the detector, hands it the frames of a raw I420 file and prints
// the rectangles. It needs the headers of the boundary and libtavro-core, and works with any C++20
// compiler: nothing of a C++ runtime crosses the boundary.
//
//   example_host MODULE FILE WIDTH HEIGHT

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "host/core/face_rects.h"
#include "host/core/host_api.h"
#include "host/core/i420_frame.h"
#include "modules/face_detection/fd_wrapper.h"

using namespace tavro::host;
using TavroRTC::FDModule::FaceRect;
using TavroRTC::FDModule::FDWrapper;

namespace {

/// A host may have a frame class of its own, derived from HostFrame; I420Frame is a ready one.
bool readFrame(std::FILE* file, I420Frame& frame) {
  for (int32_t plane = 0; plane < planeCount; ++plane) {
    const auto bytes = static_cast<size_t>(frame.planeStride(plane)) *
                       static_cast<size_t>(frame.planeHeight(plane));
    if (std::fread(frame.writablePlane(plane), 1, bytes, file) != bytes)
      return false;
  }
  return true;
}

/// Every frame of the file. False if one was refused or there was none.
bool detect(FDWrapper& detector, std::FILE* file, I420Frame& frame) {
  FaceRects faces;  // serves all frames: its memory grows with the number of faces, and stays
  int number = 0;
  for (; readFrame(file, frame); ++number) {
    if (!detector.execute(&frame, faces.sequence()))
      return false;
    std::printf("frame %d:", number);
    for (const FaceRect& face : faces.view())
      std::printf(" (%d, %d, %d, %d)", face.left, face.top, face.right, face.bottom);
    std::printf("\n");
  }
  return number > 0;
}

int fail(const char* what) {
  std::fprintf(stderr, "example_host: %s\n", what);
  return 1;
}

}  // namespace

int main(int argumentCount, char** arguments) {
  if (argumentCount != 5)
    return fail("usage: example_host MODULE FILE WIDTH HEIGHT");
  std::FILE* file = std::fopen(arguments[2], "rb");
  auto frame = I420Frame::allocate(std::atoi(arguments[3]), std::atoi(arguments[4]));
  if (file == nullptr || !frame.has_value())
    return fail("the file can't be read, or its frames have no such size");

  char module[64];
  if (tavro_host_load(arguments[1], module, sizeof module) != 0)
    return fail(tavro_host_error());
  FDWrapper* detector = tavro_host_create(module);
  if (detector == nullptr)
    return fail(tavro_host_error());
  const bool done = detector->init() && detect(*detector, file, *frame);

  // The instance goes back to the module, whose memory it is; then the module may go.
  tavro_host_destroy(detector);
  tavro_host_unload(module);
  std::fclose(file);
  return done ? 0 : fail("the detector refused a frame, or there was none");
}
