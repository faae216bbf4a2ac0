// Modules for the tests of the host: each is this file, built with one of the FAKE_* faults or with
// none. It has the real boundary, class FDWrapper included, and behind it a detector that answers
// with what it was given (fake_detector.h). It prints diagnostics as the real one does.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <new>

#include "modules/face_detection/fd_wrapper.h"
#include "tests/host/fake_detector.h"

namespace TavroRTC::FDModule {

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
  const auto found = tavro::test::paintedFaces(*frame);
#else
  const auto found = tavro::test::fakeFaces(*frame);
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
