// Finds small faces, too: looks through windows of each frame of a raw I420 file, and prints the
// rectangles of the whole frame and which face each of them belongs to.
//
//   example_windows SMALLEST_FACE FILE WIDTH HEIGHT
//
// C++ objects cross the boundary here, so it takes the compiler that libtavro-core was built with.

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "host/core/face_numbers.h"
#include "host/core/frame_search.h"
#include "host/core/i420_frame.h"

using namespace tavro::host;

static int fail(const std::string& what) {
  std::fprintf(stderr, "example_windows: %s\n", what.c_str());
  return 2;
}

int main(int argumentCount, char** arguments) {
  if (argumentCount != 5)
    return fail("usage: example_windows SMALLEST_FACE FILE WIDTH HEIGHT");
  std::FILE* file = std::fopen(arguments[2], "rb");
  const int width = std::atoi(arguments[3]);
  const int height = std::atoi(arguments[4]);
  if (file == nullptr || width < 1 || height < 1)
    return fail("the file can't be read, or its frames have no such size");

  // The detector's two modules: for frames of any shape, and for windows that are nearly square.
  std::string path;
  SearchModules modules;
  Status status = findDetector(path);
  if (status.ok())
    status = loadModule(path, &modules.whole);
  if (const std::string square = squareDetectorBeside(path); status.ok() && !square.empty())
    status = loadModule(square, &modules.square);
  const SearchOptions options = {.windows = {.smallestFace = std::atoi(arguments[1])}};
  const auto search = status.ok() ? FrameSearch::open(modules, options, status) : nullptr;
  if (search == nullptr)
    return fail(status.error);

  const auto extentOf = [&](int32_t plane) {
    return static_cast<size_t>(planeExtent(plane, width)) *
           static_cast<size_t>(planeExtent(plane, height));
  };
  const size_t luma = extentOf(0);
  const size_t chroma = extentOf(1);
  std::vector<uint8_t> samples(luma + 2 * chroma);
  const uint8_t* y = samples.data();
  const auto frame = I420Frame::borrow(width, height, y, width, y + luma, y + luma + chroma,
                                       planeExtent(1, width));
  FaceRects faces;
  FaceNumbers numbers;
  for (int number = 0; std::fread(samples.data(), samples.size(), 1, file) == 1; ++number) {
    // Plans the windows for the first frame, and again if the size changes. If a window fails, the
    // others have been searched all the same.
    if (const Status partly = search->search(*frame, faces); !partly.ok())
      std::fprintf(stderr, "example_windows: %s\n", partly.error.c_str());
    std::printf("frame %d:", number);
    // Such a file has no times: 25 frames a second.
    const auto names = numbers.update(faces.view(), number / 25.0);
    for (size_t i = 0; i < names.size(); ++i) {
      const auto& face = faces.view()[i];
      std::printf(" face %d (%d, %d, %d, %d)", static_cast<int>(names[i]), face.left, face.top,
                  face.right, face.bottom);
    }
    std::printf("\n");
  }
}
