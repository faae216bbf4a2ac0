// FaceDetector on whole frames: what it refuses, in which order and with which words, and that a
// frame that fails leaves no trace; the instance around it and the callback that hands it out. A
// threshold below 0 makes every prior a candidate, so that any picture has "faces", whatever the
// weights. (The rectangles themselves: tests/end_to_end.)

#include "modules/face_detection/face_detector.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "engine/net.h"
#include "host/core/face_rects.h"
#include "modules/face_detection/fd_wrapper.h"
#include "modules/face_detection/impl.h"
#include "modules/face_detection/module_callback.h"
#include "modules/face_detection/network_input.h"
#include "tests/support/captured_stdout.h"
#include "tests/support/frames.h"
#include "tests/support/guarded_buffer.h"

namespace TavroRTC::FDModule {

// As it stands in impl.cpp, for a look inside.
class Impl final : public Net {
 public:
  using Net::Net;
};

namespace {

using tavro::host::FaceRects;
using tavro::host::I420Frame;
using namespace tavro::test;
using Rects = std::vector<FaceRect>;

constexpr float anyScore = -1.0F;

std::unique_ptr<FaceDetector> makeDetector(float threshold) {
  auto detector = std::make_unique<FaceDetector>();
  EXPECT_TRUE(detector->init(threshold));
  return detector;
}

Rects detect(FaceDetector& detector, const FrameView& frame) {
  FaceRects faces;
  EXPECT_TRUE(detector.execute(frame, *faces.sequence()));
  return {faces.view().begin(), faces.view().end()};
}

I420Frame noise(uint64_t seed) {
  Random random(seed);
  return randomFrame(random, 192, 192);
}

TEST(FaceDetector, RefusesBadFramesInOrder) {
  const char* const threshold = "threshold not set, pls check\n";
  const char* const stride = "stride should be larger than input w, pls check\n";
  const char* const input = "input is invalid or initialization failed, pls check\n";
  const I420Frame picture = plainFrame(64, 48);
  const FrameView good = viewOf(picture);
  const uint8_t* const none = nullptr;
  const struct {
    float threshold;
    const char* message;
    FrameView frame;
  } cases[] = {
      {0, threshold, {}},
      {0.65F, stride, {none, none, none, 64, 48, 63, 32}},
      {0.65F, stride, {good.y, good.u, good.v, 64, 48, 64, 31}},
      {0.65F, input, {none, good.u, good.v, 64, 48, 64, 32}},
      {0.65F, input, {good.y, none, good.v, 64, 48, 64, 32}},
      {0.65F, input, {good.y, good.u, none, 64, 48, 64, 32}},
      {0.65F, "", {good.y, good.u, good.v, 0, 48, 64, 32}},
      {0.65F, "", {good.y, good.u, good.v, 64, 0, 64, 32}},
      {0.65F, "", {good.y, good.u, good.v, 32769, 48, 32769, 32769}},
      {0.65F, "", {good.y, good.u, good.v, 64, 32769, 64, 32}},
      {0.65F, "", {good.y, good.u, good.v, -64, 48, 64, 32}},
      {0.65F, "", {good.y, good.u, good.v, 64, -48, 64, 32}},
  };
  const auto expectRefusal = [](FaceDetector& detector, const FrameView& frame,
                                const char* message) {
    FaceRect room[3];
    FaceRectSequence faces{.elements = room, .size = 3, .capacity = 3};
    CapturedStdout captured;
    EXPECT_FALSE(detector.execute(frame, faces));
    EXPECT_EQ(captured.stop(), message);
    EXPECT_EQ(faces.size, 0);
  };
  const auto detector = makeDetector(0);
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    detector->init(c.threshold);
    expectRefusal(*detector, c.frame, c.message);
  }
  FaceDetector notReady;
  expectRefusal(notReady, good, threshold);
}

TEST(FaceDetector, FrameWithoutFacesIsASuccessAndEndsAllTracks) {
  const I420Frame picture = noise(1);
  const auto detector = makeDetector(anyScore);
  const Rects before = detect(*detector, viewOf(picture));
  EXPECT_FALSE(before.empty());
  detector->init(1.5F);   // more than any score
  FaceRectSequence none;  // no room and no way to make any, nor a need
  EXPECT_TRUE(detect(*detector, viewOf(picture)).empty());
  EXPECT_TRUE(detector->execute(viewOf(picture), none));
  detector->init(anyScore);
  EXPECT_EQ(detect(*detector, viewOf(picture)), before);
}

TEST(FaceDetector, TracksSurviveFramesThatFail) {
  const I420Frame firstFrame = noise(1), secondFrame = noise(2);
  const FrameView first = viewOf(firstFrame), second = viewOf(secondFrame);
  const auto undisturbed = makeDetector(anyScore);
  const Rects before = detect(*undisturbed, first);
  ASSERT_NE(detect(*undisturbed, second), before);
  const size_t boxes = detect(*makeDetector(anyScore), second).size();

  const auto detector = makeDetector(anyScore);
  EXPECT_EQ(detect(*detector, first), before);
  static size_t asked = 0;
  const auto refuses = [](FaceRectSequence*, int32_t capacity) {
    asked = static_cast<size_t>(capacity);
    return false;
  };
  const auto lies = [](FaceRectSequence*, int32_t) { return true; };
  const auto loses = [](FaceRectSequence* sequence, int32_t capacity) {
    sequence->elements = nullptr;
    sequence->capacity = capacity;
    return true;
  };
  using Grow = bool (*)(FaceRectSequence*, int32_t);
  for (const Grow grow : {Grow(refuses), Grow(lies), Grow(loses), Grow(nullptr)}) {
    FaceRect room = {};
    FaceRectSequence faces{.elements = &room, .size = 1, .capacity = 1, .grow = grow};
    EXPECT_FALSE(detector->execute(second, faces));
    EXPECT_EQ(faces.size, 0);
    EXPECT_EQ(room, FaceRect());
  }
  EXPECT_EQ(asked, before.size() + boxes);  // room for all that there can be
  FrameView bad = second;
  bad.v = nullptr;
  FaceRects faces;
  EXPECT_FALSE(detector->execute(bad, *faces.sequence()));
  EXPECT_TRUE(detector->init(anyScore));  // changes the threshold only
  EXPECT_EQ(detect(*detector, first), before);
}

// The planes end, or begin, at a page that can't be touched. A chroma stride that is too short for
// the last column of an odd width is accepted.
TEST(FaceDetector, ReadsNothingBeyondThePlanes) {
  TracedRandom random;
  const auto detector = makeDetector(anyScore);
  for (int i = 0; i < caseCount(100); ++i) {
    const int32_t width = random.between(1, i % 4 == 0 ? 4000 : 400);
    const int32_t height = random.between(1, i % 4 == 1 ? 4000 : 400);
    const int32_t strideY = width + random.between(0, 9);
    const int32_t strideUV = width / 2 + random.between(0, 9);
    const auto bytes = [](int32_t stride, int32_t rows, int32_t columns) {
      return static_cast<size_t>(stride) * static_cast<size_t>(rows - 1) +
             static_cast<size_t>(columns);
    };
    const Guard guard = random.chance(0.5) ? Guard::behind : Guard::inFront;
    const GuardedBuffer<uint8_t> y(bytes(strideY, height, width), guard);
    const size_t chroma = bytes(strideUV, (height + 1) / 2, (width + 1) / 2);
    const GuardedBuffer<uint8_t> u(chroma, guard), v(chroma, guard);
    detect(*detector, {y.data(), u.data(), v.data(), width, height, strideY, strideUV});
  }
}

/// A frame of 2x2 pixels that writes down how it is read.
class RecordingFrame final : public HostFrame {
 public:
  const uint8_t* planeData(int32_t plane) const override {
    return note("planeData " + std::to_string(plane), samples);
  }
  int32_t planeStride(int32_t plane) const override {
    return note("planeStride " + std::to_string(plane), 2);
  }
  int32_t width() const override { return note("width", 2); }
  int32_t height() const override { return note("height", 2); }

  uint8_t samples[4] = {};
  mutable std::string log;

 private:
  template <typename Answer>
  Answer note(const std::string& call, Answer answer) const {
    log += call + '\n';
    return answer;
  }
};

TEST(FDWrapper, ReadsAFrameBySevenCallsAndANullOneNotAtAll) {
  FDWrapper wrapper;
  const RecordingFrame frame;
  FaceRects faces;
  ASSERT_TRUE(faces.sequence()->grow(faces.sequence(), 2));
  const auto execute = [&](const HostFrame* given) {
    faces.sequence()->size = 2;
    return wrapper.execute(given, faces.sequence());
  };
  EXPECT_FALSE(execute(nullptr));
  EXPECT_EQ(faces.view().size(), 2U);
  EXPECT_FALSE(execute(&frame));  // not ready
  EXPECT_TRUE(faces.empty());

  ASSERT_TRUE(wrapper.init());
  EXPECT_FALSE(execute(nullptr));
  EXPECT_EQ(faces.view().size(), 2U);
  EXPECT_FALSE(wrapper.execute(&frame, nullptr));
  EXPECT_EQ(frame.log, "");
  EXPECT_TRUE(execute(&frame));
  EXPECT_EQ(frame.log,
            "planeData 0\nplaneData 1\nplaneData 2\nwidth\nheight\nplaneStride 0\nplaneStride 1\n");
}

TEST(ModuleCallback, CommandCodes) {
  FDWrapper untouched;
  void* slot = &untouched;
  const auto call = [](int32_t code, void* object) {
    ModuleCommand command{.code = code, .object = object};
    return moduleCallback(nullptr, &command);
  };
  for (const int32_t code : {0, 1000, 1003, -1001})
    EXPECT_EQ(call(code, static_cast<void*>(&slot)), -1);
  EXPECT_EQ(slot, &untouched);
  EXPECT_EQ(moduleCallback(nullptr, nullptr), -1);
  EXPECT_EQ(call(createInstanceCommand, nullptr), -1);
  EXPECT_EQ(call(destroyInstanceCommand, nullptr), 0);
  EXPECT_EQ(call(createInstanceCommand, static_cast<void*>(&slot)), 0);
  ASSERT_TRUE(slot != nullptr && slot != &untouched);
  EXPECT_EQ(call(destroyInstanceCommand, slot), 0);
}

TEST(Impl, RefusesWhatItCannotRun) {
  EXPECT_EQ(createImpl(1, 0), nullptr);
  EXPECT_EQ(releaseImpl(nullptr), 0);
  float* boxes = nullptr;
  float* scores = nullptr;
  const auto expectRefusal = [&](Impl* impl, uint8_t* picture) {
    EXPECT_EQ(runImpl(impl, picture, &boxes, &scores), -1);
    EXPECT_TRUE(boxes == nullptr && scores == nullptr);
  };
  std::vector<uint8_t> picture(packedInputSize + 64);
  expectRefusal(nullptr, picture.data());
  Impl* const impl = createImpl(0, 2);
  Net* const net = impl;
  expectRefusal(impl, nullptr);  // no picture yet
  std::swap(net->outputs[0], net->outputs[1]);
  expectRefusal(impl, picture.data());
  net->outputs[0] = net->outputs[1];  // the boxes as they should be, the scores with four values
  expectRefusal(impl, picture.data());
  EXPECT_EQ(releaseImpl(impl), 0);
}

}  // namespace
}  // namespace TavroRTC::FDModule
