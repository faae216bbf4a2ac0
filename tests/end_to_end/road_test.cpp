// The whole road of a frame of any size, from the host's planes to the rectangles. (Sequences of
// frames are those of digest_test.cpp.) The second opinion has its own scaler, colour formula,
// network, priors, decoding and suppression, all in double precision where the module has single.

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <optional>
#include <span>
#include <vector>

#include "host/core/face_rects.h"
#include "host/core/i420_frame.h"
#include "modules/face_detection/fd_wrapper.h"
#include "tests/end_to_end/reference_network.h"
#include "tests/image/reference.h"
#include "tests/support/captured_stdout.h"
#include "tests/support/portrait.h"
#include "tests/support/processor.h"
#include "tests/support/reference_boxes.h"

namespace {

using namespace tavro::test;
using tavro::host::FaceRects;
using tavro::host::I420Frame;
using TavroRTC::FDModule::FaceRect;
using TavroRTC::FDModule::FDWrapper;

constexpr int32_t side = ReferenceNetwork::side;
constexpr double threshold = 0.65;

struct Size {
  int32_t width, height;
};
constexpr Size frameSizes[] = {{1280, 720}, {1279, 719}, {641, 361},  {1, 1},
                               {16, 4096},  {4096, 16},  {192, 192},  {383, 383},
                               {384, 384},  {192, 720},  {1280, 192}, {2560, 1440},
                               {100, 100},  {32768, 2},  {2, 32768},  {333, 500}};

/// The portrait stretched to a frame, on planes of exactly the samples that it has.
class PortraitFrame {
 public:
  explicit PortraitFrame(Size size)
      : planes_{TestPlane(size.width, size.height, 5),
                TestPlane((size.width + 1) / 2, (size.height + 1) / 2, 3),
                TestPlane((size.width + 1) / 2, (size.height + 1) / 2, 3)},
        frame_(I420Frame::borrow(size.width, size.height, planes_[0].bytes.data(),
                                 planes_[0].stride, planes_[1].bytes.data(),
                                 planes_[2].bytes.data(), planes_[1].stride)) {
    const Portrait portrait;
    for (int32_t i = 0; i < 3; ++i) {
      TestPlane& plane = planes_[static_cast<size_t>(i)];
      for (int32_t y = 0; y < plane.height; ++y)
        for (int32_t x = 0; x < plane.width; ++x)
          plane.bytes[static_cast<size_t>(y) * static_cast<size_t>(plane.stride) +
                      static_cast<size_t>(x)] = portrait.at(i, x, y, plane.width, plane.height);
    }
  }

  const I420Frame& frame() const { return *frame_; }

  /// The picture that the network is to see.
  std::vector<uint8_t> networkInput() const {
    constexpr int32_t bilinear = 2;
    std::array<std::vector<uint8_t>, 3> scaled;
    for (size_t i = 0; i < scaled.size(); ++i) {
      const int32_t size = i == 0 ? side : side / 2;
      scaled[i] = tavro::test::scaled(ImagePart(planes_[i]), size, size, bilinear);
    }
    std::vector<uint8_t> picture;
    for (size_t y = 0; y < side; ++y)
      for (size_t x = 0; x < side; ++x) {
        const size_t chroma = y / 2 * (side / 2) + x / 2;
        const Bgr pixel = bgrOf(scaled[0][y * side + x], scaled[1][chroma], scaled[2][chroma]);
        picture.insert(picture.end(), {pixel.b, pixel.g, pixel.r});
      }
    return picture;
  }

 private:
  std::array<TestPlane, 3> planes_;
  std::optional<I420Frame> frame_;
};

/// Truncated corners of what both compute the same to a few parts in a hundred thousand.
void expectSameRects(std::span<const FaceRect> rects, const std::vector<ReferenceBox>& boxes,
                     Size frame) {
  ASSERT_EQ(rects.size(), boxes.size());
  const double toleranceX = 1 + 1e-4 * frame.width;
  const double toleranceY = 1 + 1e-4 * frame.height;
  for (size_t i = 0; i < boxes.size(); ++i) {
    EXPECT_NEAR(rects[i].left, std::trunc(boxes[i].left), toleranceX);
    EXPECT_NEAR(rects[i].top, std::trunc(boxes[i].top), toleranceY);
    EXPECT_NEAR(rects[i].right, std::trunc(boxes[i].right), toleranceX);
    EXPECT_NEAR(rects[i].bottom, std::trunc(boxes[i].bottom), toleranceY);
  }
}

/// A wrapper on a processor with AVX and FMA or on one without.
class Detector {
 public:
  explicit Detector(bool avxAndFma) : processor_(avxAndFma) { EXPECT_TRUE(wrapper_.init()); }

  std::vector<FaceRect> execute(const PortraitFrame& frame) {
    EXPECT_TRUE(wrapper_.execute(&frame.frame(), faces_.sequence()));
    return {faces_.view().begin(), faces_.view().end()};
  }

 private:
  Processor processor_;
  CapturedStdout quiet_;
  FDWrapper wrapper_;
  FaceRects faces_;
};

TEST(Road, FirstFrameOfAnySizeGivesTheExpectedRectangles) {
  ReferenceNetwork network(TAVRO_WEIGHTS_PATH);
  int compared = 0;
  int withFace = 0;
  for (const Size size : frameSizes) {
    SCOPED_TRACE(testing::Message() << size.width << "x" << size.height);
    const PortraitFrame frame(size);
    const ReferenceNetwork::Output output = network.run(frame.networkInput());
    const ReferenceBoxes expected =
        referenceBoxes([&](size_t i) { return output.boxes[i].value; },
                       [&](size_t prior) { return output.scores[2 * prior + 1].value; }, size.width,
                       size.height, threshold);
    if (expected.closestCall < 1e-3 || expected.closestScores < 1e-6)
      continue;  // either answer is right
    ++compared;
    withFace += expected.kept.empty() ? 0 : 1;
    for (const bool avxAndFma : availableProcessors())
      expectSameRects(Detector(avxAndFma).execute(frame), expected.kept, size);
  }
  // The comparison mustn't dwindle to the frames in which nothing is found.
  EXPECT_GE(compared, 8);
  EXPECT_GE(withFace, 5);
}

}  // namespace
