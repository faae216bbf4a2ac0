// The C functions of the training library against the detector that a host gets: the same faces,
// from memory that ends where the planes end.

#include "training/native/detector_library.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <memory>
#include <vector>

#include "host/core/face_rects.h"
#include "image/image_desc.h"
#include "modules/face_detection/face_detector.h"
#include "modules/face_detection/truncation.h"
#include "tests/support/guarded_buffer.h"
#include "tests/support/portrait.h"
#include "tests/support/print_face_rect.h"
#include "tests/support/random.h"

namespace {

using tavro::host::FaceRects;
using namespace tavro::test;
using TavroRTC::FDModule::FaceDetector;
using TavroRTC::FDModule::FaceRect;
using TavroRTC::FDModule::truncateToInt32;

/// Planes without a byte to spare behind their last sample.
struct Planes {
  Planes(int32_t width, int32_t height, int32_t padding)
      : chromaWidth(TavroRTC::FDModule::chromaSize(width)),
        chromaHeight(TavroRTC::FDModule::chromaSize(height)),
        y(size(width, height, padding)),
        u(size(chromaWidth, chromaHeight, padding)),
        v(size(chromaWidth, chromaHeight, padding)),
        frame{y.data(), u.data(), v.data(), width, height, width + padding, chromaWidth + padding} {
  }

  static size_t size(int32_t width, int32_t height, int32_t padding) {
    const size_t stride = static_cast<size_t>(width) + static_cast<size_t>(padding);
    return stride * static_cast<size_t>(height - 1) + static_cast<size_t>(width);
  }
  bool intact() const { return y.intact() && u.intact() && v.intact(); }

  int32_t chromaWidth, chromaHeight;
  GuardedBuffer<uint8_t> y, u, v;
  TavroFrame frame;
};

struct Release {
  void operator()(TavroDetector* detector) const { tavroReleaseDetector(detector); }
};
using Detector = std::unique_ptr<TavroDetector, Release>;

std::vector<FaceRect> moduleFaces(const TavroFrame& frame, float threshold) {
  FaceDetector detector;
  EXPECT_TRUE(detector.init(threshold));
  FaceRects faces;
  EXPECT_TRUE(detector.execute({.y = frame.y,
                                .u = frame.u,
                                .v = frame.v,
                                .width = frame.width,
                                .height = frame.height,
                                .strideY = frame.strideY,
                                .strideUV = frame.strideUV},
                               *faces.sequence()));
  const auto& found = *faces.sequence();
  return {found.elements, found.elements + found.size};
}

std::vector<FaceRect> libraryFaces(TavroDetector* detector, const TavroFrame& frame,
                                   float threshold) {
  std::vector<TavroBox> boxes(6);
  const int32_t count = tavroDetect(detector, &frame, threshold, 5, boxes.data(), 6);
  EXPECT_GE(count, 0);
  std::vector<FaceRect> faces;
  for (int32_t i = 0; i < count; ++i) {
    const TavroBox& box = boxes[static_cast<size_t>(i)];
    EXPECT_GT(box.score, threshold);
    faces.push_back({truncateToInt32(box.x1), truncateToInt32(box.y1), truncateToInt32(box.x2),
                     truncateToInt32(box.y2)});
  }
  return faces;
}

TEST(DetectorLibrary, FindsWhatTheModuleFinds) {
  auto face = Portrait().frame();
  const TavroFrame portrait{face.writablePlane(0), face.writablePlane(1), face.writablePlane(2),
                            face.width(),          face.height(),         face.planeStride(0),
                            face.planeStride(1)};
  const Detector detector(tavroCreateDetector());
  ASSERT_NE(detector, nullptr);
  EXPECT_EQ(libraryFaces(detector.get(), portrait, 0.65F), moduleFaces(portrait, 0.65F));
  EXPECT_EQ(libraryFaces(detector.get(), portrait, 0.65F).size(), 1U);

  // Below 0 every prior is a candidate: any picture has six boxes, the most that are reported.
  TracedRandom random;
  for (const auto [width, height, padding] : {std::array{1, 1, 0},
                                              {97, 53, 0},
                                              {53, 97, 5},
                                              {192, 192, 0},
                                              {384, 384, 3},
                                              {640, 359, 1}}) {
    SCOPED_TRACE(testing::Message() << width << " x " << height);
    Planes planes(width, height, padding);
    for (auto* plane : {&planes.y, &planes.u, &planes.v})
      std::ranges::generate(*plane, [&] { return random.byte(); });
    EXPECT_EQ(libraryFaces(detector.get(), planes.frame, -1.0F), moduleFaces(planes.frame, -1.0F));
    GuardedBuffer<uint8_t> picture(size_t{192} * 192 * 3);
    EXPECT_EQ(tavroPrepareInput(&planes.frame, picture.data()), 0);
    EXPECT_TRUE(picture.intact() && planes.intact());
  }
}

TEST(DetectorLibrary, WritesTheFrameAndNothingElse) {
  for (const auto [width, height, padding] :
       {std::array{1, 1, 0}, {2, 3, 4}, {33, 18, 0}, {400, 267, 7}}) {
    SCOPED_TRACE(testing::Message() << width << " x " << height);
    Planes planes(width, height, padding);
    GuardedBuffer<uint8_t> picture(static_cast<size_t>(width) * static_cast<size_t>(height) * 3);
    std::ranges::fill(picture, uint8_t{255});
    ASSERT_EQ(tavroConvertPicture(picture.data(), width * 3, &planes.frame), 0);
    EXPECT_TRUE(planes.intact());
    const ptrdiff_t stride = width + padding;
    for (ptrdiff_t row = 0; row < height; ++row) {
      const uint8_t* luma = planes.y.data() + row * stride;
      for (ptrdiff_t column = 0; column < width; ++column)
        ASSERT_NEAR(luma[column], 235, 2);  // the conversion's weights have 7 bits
      for (ptrdiff_t column = width; row + 1 < height && column < stride; ++column)
        ASSERT_EQ(luma[column], GuardedBuffer<uint8_t>::poison);
    }
    EXPECT_NEAR(planes.u[0], 128, 1);
    EXPECT_NEAR(planes.v[planes.v.size() - 1], 128, 1);
  }
}

}  // namespace
