// The module and the heap: what a warm frame takes from it, which is scratch that is given back
// within the frame; and that the failure of any single allocation, from the instance's creation to
// its third frame, is a plain refusal that costs nothing once there is memory again.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "host/core/face_rects.h"
#include "host/core/i420_frame.h"
#include "modules/face_detection/fd_wrapper.h"
#include "modules/face_detection/module_callback.h"
#include "tests/support/captured_stdout.h"
#include "tests/support/portrait.h"
#include "tests/support/print_face_rect.h"
#include "tests/support/processor.h"
#include "tests/support/scarce_memory.h"

namespace {

using tavro::host::FaceRects;
using tavro::host::I420Frame;
using namespace tavro::test;
using TavroRTC::FDModule::FaceRect;
using TavroRTC::FDModule::FDWrapper;
using TavroRTC::FDModule::ModuleCommand;

/// An instance that has seen three frames of one picture.
class WarmInstance {
 public:
  explicit WarmInstance(const I420Frame& frame) : frame_(frame) {
    CapturedStdout quiet;
    EXPECT_TRUE(faces.sequence()->grow(faces.sequence(), 16));
    EXPECT_TRUE(wrapper_.init());
    for (int i = 0; i < 3; ++i)
      run();
  }

  HeapTraffic run() {
    const HeapTraffic before = heapTraffic();
    EXPECT_TRUE(wrapper_.execute(&frame_, faces.sequence()));
    return {heapTraffic().taken - before.taken, heapTraffic().returned - before.returned};
  }

  FaceRects faces;

 private:
  const I420Frame& frame_;
  FDWrapper wrapper_;
};

TEST(Heap, AFrameWithoutFacesTakesScratchRowsOnly) {
  // The scaler takes a row for each plane if it filters columns, and none otherwise.
  const struct {
    int32_t width, height, scalerRows;
  } sizes[] = {{1280, 720, 3}, {100, 100, 3}, {384, 384, 0}, {192, 192, 0}, {192, 720, 0}};
  // The first convolution takes one block; the 128-bit kernels two, and one for each of seven more.
  for (const bool avxAndFma : availableProcessors())
    for (const auto& size : sizes) {
      SCOPED_TRACE(std::to_string(size.width) + "x" + std::to_string(size.height) +
                   (avxAndFma ? "" : " without AVX and FMA"));
      const auto frame = I420Frame::allocate(size.width, size.height);
      ASSERT_TRUE(frame.has_value());
      const Processor processor(avxAndFma);
      const HeapTraffic traffic = WarmInstance(*frame).run();
      EXPECT_GT(traffic.taken, 0) << "nothing is counted";
      EXPECT_LE(traffic.taken, size.scalerRows + (avxAndFma ? 1 : 9));
      EXPECT_EQ(traffic.taken, traffic.returned);
    }
}

TEST(Heap, FacesLeaveNothingBehind) {
  const I420Frame frame = Portrait().frame();
  WarmInstance instance(frame);
  for (int i = 0; i < 5; ++i) {
    const HeapTraffic traffic = instance.run();
    ASSERT_FALSE(instance.faces.empty());
    EXPECT_EQ(traffic.taken, traffic.returned);
    EXPECT_LE(traffic.taken, 16);
  }
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

/// An instance's life from creation to its third frame while the allocation behind the first
/// `allowed` ones fails, alone or with all that follow.
class ScarceLife {
 public:
  ScarceLife(const I420Frame& frame, const Answers& answers) : frame_(frame), answers_(answers) {
    EXPECT_TRUE(faces_.sequence()->grow(faces_.sequence(), 16));
  }

  struct Outcome {
    bool failed = false;          ///< an allocation
    const char* fault = nullptr;  ///< what the instance did wrong
  };

  Outcome run(int64_t allowed, ScarceMemory::Failing failing) {
    const int64_t before = heapTraffic().kept();
    const Outcome outcome = live(allowed, failing);
    if (outcome.fault == nullptr && heapTraffic().kept() != before)
      return {outcome.failed, "left blocks behind"};
    return outcome;
  }

 private:
  Outcome live(int64_t allowed, ScarceMemory::Failing failing) {
    FDWrapper* made = nullptr;
    ModuleCommand create{.code = TavroRTC::FDModule::createInstanceCommand,
                         .object = static_cast<void*>(&made)};
    std::optional<ScarceMemory> scarce(std::in_place, allowed, failing);
    const int32_t answer = TavroRTC::FDModule::moduleCallback(nullptr, &create);
    const bool ready = made != nullptr && made->init();
    const bool failedEarly = ScarceMemory::hasFailed();
    isRight_ = true;
    size_t found = 0;
    for (size_t i = 0; i < frameCount && made != nullptr; ++i)
      found += execute(*made, found) ? 1 : 0;
    const bool failed = ScarceMemory::hasFailed();
    scarce.reset();

    const char* fault = answer != 0 ? "the callback refused" : nullptr;
    if (!failed && (!ready || found != frameCount))
      fault = "failed with memory";
    if (made == nullptr)
      return {failed, fault};
    // What failed in a frame is made up for by the next one. An instance that was never complete
    // has to be made ready again.
    if (!ready || !execute(*made, found)) {
      if (!failedEarly)
        fault = "a frame's failure outlived it";
      // Now and then: it takes longer than all the rest.
      if (allowed % 16 == 0 && (!made->init() || !execute(*made, 0)))
        fault = "doesn't recover";
    }
    if (!isRight_)
      fault = "gave other rectangles than undisturbed frames";
    ModuleCommand destroy{.code = TavroRTC::FDModule::destroyInstanceCommand, .object = made};
    TavroRTC::FDModule::moduleCallback(nullptr, &destroy);
    return {failed, fault};
  }

  /// A frame that follows `earlier` good ones.
  bool execute(FDWrapper& wrapper, size_t earlier) {
    faces_.sequence()->size = 1;
    const bool done = wrapper.execute(&frame_, faces_.sequence());
    isRight_ &= done ? std::ranges::equal(faces_.view(), answers_[earlier]) : faces_.empty();
    return done;
  }

  const I420Frame& frame_;
  const Answers& answers_;
  FaceRects faces_;
  bool isRight_ = true;
};

#if defined(_WIN32)
// MinGW's runtime library takes memory to throw for want of memory, and ends the program without.
constexpr std::array failures = {ScarceMemory::Failing::once};
#else
constexpr std::array failures = {ScarceMemory::Failing::once, ScarceMemory::Failing::forGood};
#endif

/// The first exception of a thread takes a block that some runtime libraries keep for the next
/// ones.
void throwOnce() {
  int caught = 0;
  try {
    throw std::bad_alloc();
  } catch (const std::bad_alloc&) {
    ++caught;
  }
  EXPECT_EQ(caught, 1);
}

TEST(Heap, AnyAllocationMayFail) {
  throwOnce();
  const I420Frame frame = Portrait().frame();
  for (const auto failing : failures) {
    std::optional<CapturedStdout> quiet(std::in_place);
    const Answers answers = undisturbedAnswers(frame);
    ScarceLife life(frame, answers);
    life.run(0,
             failing);  // what the runtime keeps from its first exception on is there from now on
    ScarceLife::Outcome outcome = {.failed = true};
    int64_t allowed = -1;
    while (outcome.failed && outcome.fault == nullptr)
      outcome = life.run(++allowed, failing);
    quiet.reset();
    ASSERT_EQ(outcome.fault, nullptr) << outcome.fault << " after " << allowed << " allocations";
    EXPECT_GT(allowed, 500);  // a network is made of many parts
  }
}

}  // namespace
