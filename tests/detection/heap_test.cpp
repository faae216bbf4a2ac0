// The module and the heap. A warm frame takes nothing but scratch, which it returns before it ends.
// And any allocation may fail, from the module's loading to an instance's third frame: that is a
// refusal, and all is well as soon as there is memory again.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "host/core/face_rects.h"
#include "host/core/i420_frame.h"
#include "host/core/module_host.h"
#include "modules/face_detection/fd_wrapper.h"
#include "modules/face_detection/module_callback.h"
#include "tests/support/captured_stdout.h"
#include "tests/support/frames.h"
#include "tests/support/portrait.h"
#include "tests/support/processor.h"
#include "tests/support/scarce_memory.h"

namespace {

using tavro::host::FaceRects;
using tavro::host::I420Frame;
using namespace tavro::test;
using namespace TavroRTC::FDModule;

/// What the frame takes from the heap that an instance sees after three others of the same picture.
HeapTraffic warmTraffic(const I420Frame& frame, bool hasFaces) {
  FDWrapper wrapper;
  FaceRects faces;
  HeapTraffic before;
  {
    CapturedStdout quiet;
    EXPECT_TRUE(faces.sequence()->grow(faces.sequence(), 16) && wrapper.init());
  }
  for (int i = 0; i < 4; ++i) {
    before = heapTraffic();
    EXPECT_TRUE(wrapper.execute(&frame, faces.sequence()));
  }
  EXPECT_NE(faces.empty(), hasFaces);
  return {heapTraffic().taken - before.taken, heapTraffic().returned - before.returned};
}

TEST(Heap, AWarmFrameTakesScratchOnly) {
  // The scaler takes a row for each plane if it filters columns, and none otherwise.
  const struct {
    int32_t width, height, scalerRows;
  } sizes[] = {{1280, 720, 3}, {100, 100, 3}, {384, 384, 0}, {192, 192, 0}, {192, 720, 0}};
  // The first convolution takes one block; the 128-bit kernels two, and one for each of seven more.
  for (const bool avxAndFma : availableProcessors())
    for (const auto& size : sizes) {
      SCOPED_TRACE(std::to_string(size.width) + "x" + std::to_string(size.height) +
                   (avxAndFma ? "" : " without AVX and FMA"));
      const Processor processor(avxAndFma);
      const HeapTraffic traffic = warmTraffic(plainFrame(size.width, size.height), false);
      EXPECT_GT(traffic.taken, 0) << "nothing is counted";
      EXPECT_LE(traffic.taken, size.scalerRows + (avxAndFma ? 1 : 9));
      EXPECT_EQ(traffic.taken, traffic.returned);
    }
  const HeapTraffic traffic = warmTraffic(Portrait().frame(), true);
  EXPECT_EQ(traffic.taken, traffic.returned);
  EXPECT_LE(traffic.taken, 16);
}

constexpr size_t frameCount = 3;
using Answers = std::vector<std::vector<FaceRect>>;

/// The answers of an instance that never lacks memory.
Answers undisturbedAnswers(const I420Frame& frame) {
  FDWrapper wrapper;
  EXPECT_TRUE(wrapper.init());
  FaceRects faces;
  Answers answers;
  for (size_t i = 0; i < frameCount + 1; ++i) {
    EXPECT_TRUE(wrapper.execute(&frame, faces.sequence()));
    answers.emplace_back(faces.view().begin(), faces.view().end());
  }
  return answers;
}

/// What an instance does wrong, or null, that lives from its creation to its third frame while the
/// allocation behind the first `allowed` ones fails, alone or with all that follow.
const char* liveInScarcity(const I420Frame& frame, const Answers& answers, int64_t allowed,
                           ScarceMemory::Failing failing, bool& failed) {
  FaceRects faces;
  EXPECT_TRUE(faces.sequence()->grow(faces.sequence(), 16));
  const int64_t keptBefore = heapTraffic().kept();
  FDWrapper* made = nullptr;
  ModuleCommand create{.code = createInstanceCommand, .object = static_cast<void*>(&made)};
  const char* fault = nullptr;
  // A frame that follows `earlier` good ones.
  const auto execute = [&](size_t earlier) {
    faces.sequence()->size = 1;
    const bool done = made->execute(&frame, faces.sequence());
    if (!(done ? std::ranges::equal(faces.view(), answers[earlier]) : faces.empty()))
      fault = "found other rectangles than undisturbed frames";
    return done;
  };

  std::optional<ScarceMemory> scarce(std::in_place, allowed, failing);
  if (moduleCallback(nullptr, &create) != 0)
    fault = "the callback refused";
  const bool ready = made != nullptr && made->init();
  const bool failedEarly = ScarceMemory::hasFailed();
  size_t found = 0;
  for (size_t i = 0; i < frameCount && made != nullptr; ++i)
    found += execute(found) ? 1 : 0;
  failed = ScarceMemory::hasFailed();
  scarce.reset();

  if (!failed && (!ready || found != frameCount))
    fault = "failed with memory";
  if (made != nullptr) {
    // What failed in a frame is made up for by the next one. An instance that was never complete
    // has to be made ready again: tried now and then, as it takes longer than all the rest.
    const bool goesOn = ready && execute(found);
    if (!goesOn && !failedEarly)
      fault = "a frame's failure outlived it";
    if (!goesOn && allowed % 16 == 0 && (!made->init() || !execute(0)))
      fault = "doesn't recover";
    ModuleCommand destroy{.code = destroyInstanceCommand, .object = made};
    moduleCallback(nullptr, &destroy);
  }
  return fault == nullptr && heapTraffic().kept() != keptBefore ? "left blocks behind" : fault;
}

#if defined(_WIN32)
// MinGW's runtime library takes memory to throw std::bad_alloc, and ends the program without.
constexpr std::array failures = {ScarceMemory::Failing::once};
#else
constexpr std::array failures = {ScarceMemory::Failing::once, ScarceMemory::Failing::forGood};
#endif

TEST(Heap, AnyAllocationMayFail) {
  // The first exception of a thread takes a block that some runtime libraries keep for the next
  // ones.
  EXPECT_THROW(throw std::bad_alloc(), std::bad_alloc);
  const I420Frame frame = Portrait().frame();
  for (const auto failing : failures) {
    std::optional<CapturedStdout> quiet(std::in_place);
    const Answers answers = undisturbedAnswers(frame);
    bool failed = true;
    liveInScarcity(frame, answers, 0, failing, failed);  // what the runtime keeps is there now
    const char* fault = nullptr;
    int64_t allowed = -1;
    while (failed && fault == nullptr)
      fault = liveInScarcity(frame, answers, ++allowed, failing, failed);
    quiet.reset();
    ASSERT_EQ(fault, nullptr) << fault << " after " << allowed << " allocations";
    EXPECT_GT(allowed, 500);  // a network is made of many parts
  }
}

#if !defined(_WIN32)  // where every library has its own operator new, out of reach
// The same for the real module in the host's library, from loading to unloading.
TEST(Heap, AnyAllocationOfLoadingMayFail) {
  namespace host = tavro::host;
  const std::string path = TAVRO_MODULE_PATH, name = moduleName;
  FDWrapper* instance = nullptr;
  const auto liveOnce = [&] {
    return host::loadModule(path).ok() && host::createInstance(name, &instance).ok() &&
           host::destroyInstance(instance).ok() && host::unloadModule(name).ok();
  };
  ASSERT_TRUE(liveOnce());  // what the host keeps for good
  for (const auto failing : failures) {
    int64_t allowed = 0;
    for (bool failed = true; failed; ++allowed) {
      SCOPED_TRACE(allowed);
      const int64_t before = heapTraffic().kept();
      bool works = false;
      {
        const ScarceMemory scarce(allowed, failing);
        works = liveOnce();
        failed = ScarceMemory::hasFailed();
      }
      EXPECT_TRUE(works || failed);
      // An instance that couldn't be destroyed is still alive.
      for (const host::ModuleInfo& left : host::modules()) {
        EXPECT_TRUE(left.liveInstances == 0 || host::destroyInstance(instance).ok());
        EXPECT_EQ(host::unloadModule(left.name).error, "");
      }
      EXPECT_TRUE(host::modules().empty());
      EXPECT_EQ(heapTraffic().kept(), before);
      ASSERT_TRUE(liveOnce());
    }
    EXPECT_GT(allowed, 10);
  }
}
#endif

}  // namespace
