// The smallest host there is: finds the faces in a raw I420 file and prints their rectangles.
//
//   example_host MODULE FILE WIDTH HEIGHT
//
// Any C++20 compiler will do: nothing of a C++ runtime crosses the boundary.

#include <cstdio>
#include <cstdlib>

#include "host/core/face_rects.h"
#include "host/core/host_api.h"
#include "host/core/i420_frame.h"
#include "modules/face_detection/fd_wrapper.h"

using namespace tavro::host;

static bool readFrame(std::FILE* file, I420Frame& frame) {
  for (int32_t plane = 0; plane < planeCount; ++plane) {
    const auto stride = static_cast<size_t>(frame.planeStride(plane));
    const auto rows = static_cast<size_t>(frame.planeHeight(plane));
    if (std::fread(frame.writablePlane(plane), stride, rows, file) != rows)
      return false;
  }
  return true;
}

static int fail(const char* what) {
  std::fprintf(stderr, "example_host: %s\n", what);
  return 2;
}

int main(int argumentCount, char** arguments) {
  if (argumentCount != 5)
    return fail("usage: example_host MODULE FILE WIDTH HEIGHT");
  std::FILE* file = std::fopen(arguments[2], "rb");
  auto frame = I420Frame::allocate(std::atoi(arguments[3]), std::atoi(arguments[4]));
  if (file == nullptr || !frame)
    return fail("the file can't be read, or its frames have no such size");

  char module[64];
  if (tavro_host_load(arguments[1], module, sizeof module) != 0)
    return fail(tavro_host_error());
  TavroRTC::FDModule::FDWrapper* detector = tavro_host_create(module);
  if (detector == nullptr || !detector->init())
    return fail("the detector can't be prepared");

  FaceRects faces;  // serves all frames: its memory grows with the number of faces, and stays
  for (int number = 0; readFrame(file, *frame); ++number) {
    if (!detector->execute(&*frame, faces.sequence()))
      return fail("the detector refused a frame");
    std::printf("frame %d:", number);
    for (const auto& face : faces.view())
      std::printf(" (%d, %d, %d, %d)", face.left, face.top, face.right, face.bottom);
    std::printf("\n");
  }
  tavro_host_destroy(detector);  // its memory is the module's, which stays until it is given back
  return tavro_host_unload(module) == 0 ? 0 : fail(tavro_host_error());
}
