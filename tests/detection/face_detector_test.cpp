// FaceDetector on whole frames: what it refuses, in which order and with which words; that its
// first answer is the decoder's; and that a frame that fails leaves no trace. A threshold below 0
// makes every prior a candidate, so that any picture has "faces", whatever the weights.

#include "modules/face_detection/face_detector.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <numeric>
#include <vector>

#include "host/core/face_rects.h"
#include "image/image_dispatch.h"
#include "modules/face_detection/box_decoder.h"
#include "modules/face_detection/impl.h"
#include "modules/face_detection/truncation.h"
#include "tests/support/captured_stdout.h"
#include "tests/support/print_face_rect.h"
#include "tests/support/random.h"

namespace TavroRTC::FDModule {
namespace {

using tavro::host::FaceRects;
using tavro::test::CapturedStdout;
using Rects = std::vector<FaceRect>;

constexpr float anyScore = -1.0F;

/// A frame of one colour or of noise, with chroma planes of exactly half its size, rounded up.
struct Picture {
  Picture(int32_t width, int32_t height, uint8_t y = 128, uint8_t u = 128, uint8_t v = 128)
      : chromaWidth((width + 1) / 2),
        luma(static_cast<size_t>(width * height), y),
        first(static_cast<size_t>(chromaWidth * ((height + 1) / 2)), u),
        second(first.size(), v),
        view{luma.data(), first.data(), second.data(), width, height, width, chromaWidth} {}

  void fillWithNoise(uint64_t seed) {
    tavro::test::Random random(seed);
    for (auto* plane : {&luma, &first, &second})
      std::ranges::generate(*plane, [&] { return random.byte(); });
  }

  int32_t chromaWidth;
  std::vector<uint8_t> luma, first, second;
  FrameView view;
};

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

TEST(FaceDetector, RefusesBadFramesInOrder) {
  const char* const threshold = "threshold not set, pls check\n";
  const char* const stride = "stride should be larger than input w, pls check\n";
  const char* const input = "input is invalid or initialization failed, pls check\n";
  struct Case {
    const char* what;
    float threshold;
    const char* message;
    void (*spoil)(FrameView& frame);
  };
  const Case cases[] = {
      {"no threshold", 0, threshold, [](FrameView& f) { f = {}; }},
      {"luma stride before null planes", 0.65F, stride,
       [](FrameView& f) {
         f.strideY = f.width - 1;
         f.y = f.u = f.v = nullptr;
       }},
      {"chroma stride", 0.65F, stride, [](FrameView& f) { f.strideUV = f.width / 2 - 1; }},
      {"no luma", 0.65F, input, [](FrameView& f) { f.y = nullptr; }},
      {"no first chroma", 0.65F, input, [](FrameView& f) { f.u = nullptr; }},
      {"no second chroma", 0.65F, input, [](FrameView& f) { f.v = nullptr; }},
      {"no width", 0.65F, "", [](FrameView& f) { f.width = 0; }},
      {"no height", 0.65F, "", [](FrameView& f) { f.height = 0; }},
      {"too wide", 0.65F, "", [](FrameView& f) { f.width = f.strideY = f.strideUV = 32769; }},
      {"too high", 0.65F, "", [](FrameView& f) { f.height = 32769; }},
      {"negative width", 0.65F, "", [](FrameView& f) { f.width = -64; }},
      {"negative height", 0.65F, "", [](FrameView& f) { f.height = -64; }},
  };
  const Picture picture(64, 48);
  const auto detector = makeDetector(0);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    detector->init(c.threshold);
    FrameView frame = picture.view;
    c.spoil(frame);
    FaceRects faces;
    ASSERT_TRUE(faces.sequence()->grow(faces.sequence(), 3));
    faces.sequence()->size = 3;
    CapturedStdout captured;
    const bool found = detector->execute(frame, *faces.sequence());
    EXPECT_EQ(captured.stop(), c.message);
    EXPECT_FALSE(found);
    EXPECT_TRUE(faces.empty());
    EXPECT_EQ(faces.sequence()->capacity, 3);
  }

  FaceRects faces;
  CapturedStdout captured;
  const bool found = FaceDetector().execute(picture.view, *faces.sequence());
  EXPECT_EQ(captured.stop(), threshold);
  EXPECT_FALSE(found);
}

TEST(FaceDetector, FrameWithoutFacesIsASuccess) {
  const auto detector = makeDetector(1.5F);  // more than any score
  EXPECT_TRUE(detect(*detector, Picture(64, 48).view).empty());
  FaceRectSequence none;  // no room and no way to make any
  EXPECT_TRUE(detector->execute(Picture(64, 48).view, none));
}

TEST(FaceDetector, OneFrameWithoutFacesEndsAllTracks) {
  Picture picture(192, 192);
  picture.fillWithNoise(1);
  const auto detector = makeDetector(anyScore);
  const Rects before = detect(*detector, picture.view);
  EXPECT_FALSE(before.empty());
  detector->init(1.5F);
  EXPECT_TRUE(detect(*detector, picture.view).empty());
  detector->init(anyScore);
  EXPECT_EQ(detect(*detector, picture.view), before);
}

/// The network's input for a plain picture of its own size.
std::vector<uint8_t> packedPlain(uint8_t y, uint8_t u, uint8_t v) {
  constexpr int32_t side = 192;
  std::vector<uint8_t> packed(size_t{3} * side * side);
  Picture plain(side, side, y, u, v);
  const ImageDesc source = {.planes = {plain.luma.data(), plain.first.data(), plain.second.data()},
                            .widths = {side, side / 2, side / 2},
                            .heights = {side, side / 2, side / 2},
                            .strides = {side, side / 2, side / 2},
                            .format = ImageFormat::I420};
  const ImageDesc target = {.planes = {packed.data()}, .strides = {3 * side}};
  EXPECT_EQ(convertImage(source, target, ColorOp::I420ToBgr24), 0);
  return packed;
}

TEST(FaceDetector, FirstFrameGivesTheDecodersBoxes) {
  // A plain frame stays plain when it is scaled, so the network's picture is known for any size.
  // (The weights with which columns are interpolated add up to 127 of 128.)
  const uint8_t y = 90, u = 140, v = 100;
  Picture exact(192, 192, y, u, v), odd(639, 479, y, u, v), wide(1280, 720, y, u, v),
      pixel(1, 1, y, u, v);
  // A chroma stride of half the width, rounded down, is allowed; the planes hold the last column
  // nonetheless.
  odd.view.strideUV = 319;
  for (const Picture* picture : {&exact, &odd, &wide, &pixel}) {
    SCOPED_TRACE(picture->view.width);
    const auto scaled = [&](uint8_t sample) {
      return static_cast<uint8_t>(picture == &exact ? sample : sample * 127 / 128);
    };
    std::vector<uint8_t> packed = packedPlain(scaled(y), scaled(u), scaled(v));
    Impl* const impl = createImpl(0, 0);
    float* boxes = nullptr;
    float* scores = nullptr;
    ASSERT_EQ(runImpl(impl, packed.data(), &boxes, &scores), 0);
    for (size_t i = 0; i < priorCount; ++i)
      ASSERT_NEAR(scores[2 * i] + scores[2 * i + 1], 1, 1e-5) << "prior " << i;

    BoxDecoder decoder;
    decoder.keepLimit = 5;
    decoder.scoreThreshold = anyScore;
    generatePriors(decoder.priors);
    Rects expected;
    for (const Detection& box :
         decoder.decode(picture->view.width, picture->view.height, boxes, scores))
      expected.push_back({truncateToInt32(box.x1), truncateToInt32(box.y1), truncateToInt32(box.x2),
                          truncateToInt32(box.y2)});
    EXPECT_FALSE(expected.empty());
    EXPECT_EQ(detect(*makeDetector(anyScore), picture->view), expected);
    EXPECT_EQ(releaseImpl(impl), 0);
  }
}

TEST(FaceDetector, TracksSurviveFramesThatFail) {
  Picture first(192, 192), second(192, 192);
  first.fillWithNoise(1);
  second.fillWithNoise(2);
  const auto undisturbed = makeDetector(anyScore);
  const Rects before = detect(*undisturbed, first.view);
  ASSERT_NE(detect(*undisturbed, second.view), before);
  const size_t boxes = detect(*makeDetector(anyScore), second.view).size();

  const auto detector = makeDetector(anyScore);
  EXPECT_EQ(detect(*detector, first.view), before);
  static size_t asked = 0;
  const auto refuses = [](FaceRectSequence*, int32_t capacity) {
    asked = static_cast<size_t>(capacity);
    return false;
  };
  const auto lies = [](FaceRectSequence*, int32_t) { return true; };
  for (bool (*grow)(FaceRectSequence*, int32_t) : {+refuses, +lies, +(decltype(+lies))nullptr}) {
    FaceRect room = {};
    FaceRectSequence faces{.elements = &room, .size = 1, .capacity = 1, .grow = grow};
    EXPECT_FALSE(detector->execute(second.view, faces));
    EXPECT_EQ(faces.size, 0);
    EXPECT_EQ(room, FaceRect());
  }
  EXPECT_EQ(asked, before.size() + boxes);  // room for all that there can be
  FrameView bad = second.view;
  bad.v = nullptr;
  FaceRects faces;
  EXPECT_FALSE(detector->execute(bad, *faces.sequence()));
  EXPECT_TRUE(detector->init(anyScore));  // changes the threshold only
  EXPECT_EQ(detect(*detector, first.view), before);
}

TEST(Impl, RefusesWhatItCannotRun) {
  EXPECT_EQ(createImpl(1, 0), nullptr);
  EXPECT_EQ(releaseImpl(nullptr), 0);
  float* boxes = nullptr;
  float* scores = nullptr;
  EXPECT_EQ(runImpl(nullptr, nullptr, &boxes, &scores), -1);
  Impl* const impl = createImpl(0, 2);
  EXPECT_EQ(runImpl(impl, nullptr, &boxes, &scores), -1);  // no picture yet
  EXPECT_EQ(boxes, nullptr);
  EXPECT_EQ(releaseImpl(impl), 0);
}

TEST(FaceDetector, Version) {
  EXPECT_STREQ(FaceDetector::version(), "\"facedetection_release_1.2.0\"");
}

}  // namespace
}  // namespace TavroRTC::FDModule
