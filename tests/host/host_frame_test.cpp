// The host's frame and result sequence, at the edges of the memory they hand to a module.

#include <gtest/gtest.h>

#include <limits>

#include "host/core/face_rects.h"
#include "host/core/i420_frame.h"
#include "tests/support/guarded_buffer.h"

namespace tavro::host {
namespace {

using TavroRTC::FDModule::FaceRect;
using test::Guard;
using test::GuardedBuffer;

/// Touches every sample that the frame says it has.
uint32_t sumOfSamples(const I420Frame& frame) {
  uint32_t sum = 0;
  for (int32_t plane = 0; plane < planeCount; ++plane)
    for (int32_t y = 0; y < frame.planeHeight(plane); ++y)
      for (int32_t x = 0; x < frame.planeWidth(plane); ++x)
        sum += frame.planeData(plane)[ptrdiff_t{y} * frame.planeStride(plane) + x];
  return sum;
}

TEST(I420Frame, BorrowedPlanesAreReadToTheLastSampleAndNoFurther) {
  for (const auto& [width, height] : {std::pair{1, 1}, {2, 1}, {1, 2}, {5, 3}, {16, 9}, {639, 7}})
    for (const int32_t gap : {0, 1, 37}) {
      SCOPED_TRACE(testing::Message() << width << "x" << height << " gap " << gap);
      const int32_t chromaWidth = (width + 1) / 2;
      const int32_t chromaHeight = (height + 1) / 2;
      const int32_t strideY = width + gap;
      const int32_t strideUV = chromaWidth + gap;
      // The last row ends where its samples end: nothing may rely on a whole stride there.
      const auto size = [](int32_t stride, int32_t rows, int32_t row) {
        return static_cast<size_t>(stride) * static_cast<size_t>(rows - 1) +
               static_cast<size_t>(row);
      };
      GuardedBuffer<uint8_t> y(size(strideY, height, width));
      GuardedBuffer<uint8_t> u(size(strideUV, chromaHeight, chromaWidth));
      GuardedBuffer<uint8_t> v(size(strideUV, chromaHeight, chromaWidth));
      std::fill(y.begin(), y.end(), uint8_t{1});
      std::fill(u.begin(), u.end(), uint8_t{2});
      std::fill(v.begin(), v.end(), uint8_t{3});
      const auto frame =
          I420Frame::borrow(width, height, y.data(), strideY, u.data(), v.data(), strideUV);
      ASSERT_TRUE(frame.has_value());
      EXPECT_EQ(frame->planeStride(2), frame->planeStride(1));
      EXPECT_EQ(sumOfSamples(*frame),
                static_cast<uint32_t>(width * height + 5 * chromaWidth * chromaHeight));
    }
}

TEST(I420Frame, OwnedPlanesLieApartAndMoveWithTheFrame) {
  auto frame = I420Frame::allocate(7, 5, 11, 6);
  ASSERT_TRUE(frame.has_value());
  for (int32_t plane = 0; plane < planeCount; ++plane)
    for (int32_t y = 0; y < frame->planeHeight(plane); ++y)
      std::fill_n(frame->writablePlane(plane) + ptrdiff_t{y} * frame->planeStride(plane),
                  frame->planeWidth(plane), static_cast<uint8_t>(plane + 1));
  const I420Frame moved = std::move(*frame);
  EXPECT_EQ(sumOfSamples(moved), 7U * 5 * 1 + 4U * 3 * 2 + 4U * 3 * 3);
  EXPECT_EQ(moved.planeStride(0), 11);
  EXPECT_EQ(moved.planeStride(1), 6);
}

TEST(I420Frame, RefusesImpossibleGeometry) {
  const uint8_t sample = 0;
  const auto borrow = [&](int32_t width, int32_t height, int32_t strideY, int32_t strideUV) {
    return I420Frame::borrow(width, height, &sample, strideY, &sample, &sample, strideUV)
        .has_value();
  };
  constexpr int32_t largest = std::numeric_limits<int32_t>::max();
  constexpr int32_t smallest = std::numeric_limits<int32_t>::min();
  EXPECT_TRUE(borrow(1, 1, 1, 1));
  EXPECT_FALSE(borrow(0, 1, 1, 1));
  EXPECT_FALSE(borrow(1, 0, 1, 1));
  EXPECT_FALSE(borrow(smallest, smallest, 1, 1));
  EXPECT_FALSE(borrow(2, 1, 1, 1));
  EXPECT_FALSE(borrow(3, 1, 3, 1));    // 3 columns need 2 chroma samples
  EXPECT_FALSE(borrow(2, 2, -2, -1));  // upside down
  EXPECT_FALSE(borrow(largest, 1, largest, largest / 2));
  EXPECT_FALSE(I420Frame::borrow(2, 2, &sample, 2, nullptr, &sample, 1).has_value());
  EXPECT_FALSE(I420Frame::allocate(-1, 4).has_value());
  EXPECT_FALSE(I420Frame::allocate(4, 4, 3).has_value());

  const auto frame = I420Frame::allocate(2, 2);
  for (const int32_t plane : {-1, 3, largest, smallest}) {
    EXPECT_EQ(frame->planeData(plane), nullptr);
    EXPECT_EQ(frame->planeStride(plane), 0);
  }
}

TEST(FaceRects, GrowKeepsWhatIsThere) {
  FaceRects faces;
  auto* sequence = faces.sequence();
  for (int32_t i = 0; i < 1000; ++i) {
    if (sequence->size == sequence->capacity) {
      ASSERT_TRUE(sequence->grow(sequence, sequence->size + 1));
      ASSERT_GT(sequence->capacity, sequence->size);
    }
    sequence->elements[sequence->size++] = {i, i + 1, i + 2, i + 3};
  }
  for (int32_t i = 0; i < 1000; ++i)
    EXPECT_EQ(faces.view()[static_cast<size_t>(i)], (FaceRect{i, i + 1, i + 2, i + 3}));
  const int32_t capacity = sequence->capacity;
  EXPECT_TRUE(sequence->grow(sequence, 1));  // never shrinks
  EXPECT_EQ(sequence->capacity, capacity);
  EXPECT_FALSE(sequence->grow(sequence, -1) && sequence->capacity < capacity);
  faces.clear();
  EXPECT_TRUE(faces.empty());
  EXPECT_EQ(sequence->capacity, capacity);
}

}  // namespace
}  // namespace tavro::host
