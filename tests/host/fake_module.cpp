// Modules for the tests of the host: each is this file, built with one of the FAKE_* faults or with
// none. It has the real boundary, class FDWrapper included, and behind it a detector whose
// rectangles say which samples have reached the module. It prints diagnostics as the real one does.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <vector>

#include "modules/face_detection/fd_wrapper.h"

namespace TavroRTC::FDModule {

namespace {

/// FNV-1a over the samples of a plane, row by row without the gaps between rows.
int32_t planeChecksum(const uint8_t* samples, int32_t stride, int32_t width, int32_t height) {
  uint32_t hash = 2166136261U;
  for (int32_t y = 0; y < height; ++y)
    for (int32_t x = 0; x < width; ++x)
      hash = (hash ^ samples[int64_t{y} * stride + x]) * 16777619U;
  return static_cast<int32_t>(hash >> 1);
}

int32_t meanOf(const uint8_t* samples, int32_t stride, int32_t firstX, int32_t endX, int32_t firstY,
               int32_t endY) {
  int64_t sum = 0;
  for (int32_t y = firstY; y < endY; ++y)
    for (int32_t x = firstX; x < endX; ++x)
      sum += samples[int64_t{y} * stride + x];
  const int64_t count = int64_t{endX - firstX} * (endY - firstY);
  return count > 0 ? static_cast<int32_t>(sum / count) : 0;
}

/// left: checksum, top: plane, right and bottom: the plane's width and height.
[[maybe_unused]] std::vector<FaceRect> fakeFaces(const HostFrame& frame) {
  std::vector<FaceRect> faces;
  const int32_t width = frame.width();
  const int32_t height = frame.height();
  for (int32_t plane = 0; plane < 3; ++plane) {
    const int32_t planeWidth = plane == 0 ? width : (width + 1) / 2;
    const int32_t planeHeight = plane == 0 ? height : (height + 1) / 2;
    faces.push_back(
        {planeChecksum(frame.planeData(plane), frame.planeStride(plane), planeWidth, planeHeight),
         plane, planeWidth, planeHeight});
  }
  const auto quarter = [&](int32_t column, int32_t row) {
    return meanOf(frame.planeData(0), frame.planeStride(0), column * (width / 2),
                  (column + 1) * (width / 2), row * (height / 2), (row + 1) * (height / 2));
  };
  faces.push_back({quarter(0, 0), quarter(1, 0), quarter(0, 1), quarter(1, 1)});
  return faces;
}

/// The boxes around the samples of each of two ranges of bright luma, where there are any: a
/// detector whose faces a test can paint.
[[maybe_unused]] std::vector<FaceRect> paintedFaces(const HostFrame& frame) {
  std::vector<FaceRect> faces;
  for (const int32_t luma : {200, 230}) {
    FaceRect box{frame.width(), frame.height(), 0, 0};
    for (int32_t y = 0; y < frame.height(); ++y)
      for (int32_t x = 0; x < frame.width(); ++x)
        if (std::abs(frame.planeData(0)[int64_t{y} * frame.planeStride(0) + x] - luma) < 10)
          box = {std::min(box.left, x), std::min(box.top, y), std::max(box.right, x + 1),
                 std::max(box.bottom, y + 1)};
    if (box.right > 0)
      faces.push_back(box);
  }
  return faces;
}

}  // namespace

class FaceDetector {};

FDWrapper::FDWrapper() = default;
FDWrapper::~FDWrapper() = default;

bool FDWrapper::init() {
  std::printf("fake: prepared\n");
#if defined(FAKE_FAILS_INIT)
  return false;
#else
  return true;
#endif
}

bool FDWrapper::execute(const HostFrame* frame, FaceRectSequence* faces) {
  std::printf("fake: frame of %d x %d\n", frame->width(), frame->height());
#if defined(FAKE_FINDS_PAINT)
  const auto found = paintedFaces(*frame);
#else
  const auto found = fakeFaces(*frame);
#endif
  const auto count = static_cast<int32_t>(found.size());
  if (faces->capacity < count && !faces->grow(faces, count))
    return false;
  std::copy(found.begin(), found.end(), faces->elements);
  faces->size = count;
#if defined(FAKE_REFUSES_FRAMES)
  return false;
#else
  return true;
#endif
}

namespace {

int32_t fakeCallback(void* /*context*/, void* argument) {
  auto* command = static_cast<ModuleCommand*>(argument);
  if (command->code == createInstanceCommand) {
#if defined(FAKE_HAS_NO_MEMORY)
    *static_cast<FDWrapper**>(command->object) = nullptr;
#else
    *static_cast<FDWrapper**>(command->object) = new (std::nothrow) FDWrapper;
#endif
    return 0;
  }
  if (command->code == destroyInstanceCommand) {
    FDWrapper::destroy(static_cast<FDWrapper*>(command->object));
    return 0;
  }
  return -1;
}

[[maybe_unused]] void unregister() {
  qosl_module_unregister(FAKE_NAME);
}

TAVRO_RUN_AT_LOAD(0) void registerFake() {
#if !defined(FAKE_REGISTERS_NOTHING)
#if !defined(FAKE_IS_NOT_WATCHED)
  qosl_so_register(FAKE_NAME, reinterpret_cast<const void*>(&registerFake));
#endif
  const int32_t result = qosl_module_register(FAKE_NAME, &fakeCallback);
#if defined(FAKE_REGISTERS_TWICE)
  qosl_module_register(FAKE_NAME, &fakeCallback);
  qosl_module_register(FAKE_NAME "_again", &fakeCallback);
#endif
#if !defined(FAKE_STAYS_REGISTERED)
  if (result >= 0)
    std::atexit(&unregister);
#else
  static_cast<void>(result);
#endif
#else
  static_cast<void>(&fakeCallback);
#endif
}

}  // namespace
}  // namespace TavroRTC::FDModule
