// What every host has: its frame and result sequence, at the edges of the memory that they hand to
// a module, the faces' outlines and their numbers; and what covers them where they are hidden.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <tuple>
#include <vector>

#include "host/core/face_cover.h"
#include "host/core/face_drawing.h"
#include "host/core/face_numbers.h"
#include "host/core/face_rects.h"
#include "host/core/i420_frame.h"
#include "tests/support/frames.h"
#include "tests/support/guarded_buffer.h"
#include "tests/support/random.h"

namespace tavro::host {
namespace {

using TavroRTC::FDModule::FaceRect;
using test::GuardedBuffer;

constexpr int32_t largest = std::numeric_limits<int32_t>::max();
constexpr int32_t smallest = std::numeric_limits<int32_t>::min();

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
      // The last row ends where its samples end: nothing may rely on a whole stride there.
      const auto plane = [gap](int32_t columns, int32_t rows, uint8_t sample) {
        const int32_t size = (columns + gap) * (rows - 1) + columns;
        return std::vector<uint8_t>(static_cast<size_t>(size), sample);
      };
      const GuardedBuffer<uint8_t> y(plane(width, height, 1));
      const GuardedBuffer<uint8_t> u(plane(chromaWidth, chromaHeight, 2));
      const GuardedBuffer<uint8_t> v(plane(chromaWidth, chromaHeight, 3));
      const auto frame = I420Frame::borrow(width, height, y.data(), width + gap, u.data(), v.data(),
                                           chromaWidth + gap);
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
  EXPECT_TRUE(borrow(1, 1, 1, 1));
  const int32_t refused[][4] = {{0, 1, 1, 1},
                                {1, 0, 1, 1},
                                {smallest, smallest, 1, 1},
                                {2, 1, 1, 1},
                                {3, 1, 3, 1},    // 3 columns need 2 chroma samples
                                {2, 2, -2, -1},  // upside down
                                {largest, 1, largest, largest / 2}};
  for (const auto& [width, height, strideY, strideUV] : refused)
    EXPECT_FALSE(borrow(width, height, strideY, strideUV)) << width << "x" << height;
  EXPECT_FALSE(I420Frame::borrow(2, 2, &sample, 2, nullptr, &sample, 1).has_value());
  EXPECT_FALSE(I420Frame::allocate(-1, 4).has_value());
  EXPECT_FALSE(I420Frame::allocate(4, 4, 3).has_value());

  const auto frame = I420Frame::allocate(2, 2);
  for (const int32_t plane : {-1, 3, largest, smallest}) {
    EXPECT_EQ(frame->planeData(plane), nullptr);
    EXPECT_EQ(frame->planeStride(plane), 0);
  }
}

TEST(FaceRects, GrowKeepsWhatIsThereAndNeverShrinks) {
  FaceRects faces;
  auto* sequence = faces.sequence();
  for (int32_t i = 0; i < 1000; ++i) {
    if (sequence->size == sequence->capacity) {
      ASSERT_TRUE(sequence->grow(sequence, sequence->size + 1));
    }
    sequence->elements[sequence->size++] = {i, i + 1, i + 2, i + 3};
  }
  for (int32_t i = 0; i < 1000; ++i)
    EXPECT_EQ(faces.view()[static_cast<size_t>(i)], (FaceRect{i, i + 1, i + 2, i + 3}));
  const int32_t capacity = sequence->capacity;
  EXPECT_TRUE(sequence->grow(sequence, 1));
  sequence->grow(sequence, -1);
  faces.clear();
  EXPECT_TRUE(faces.empty());
  EXPECT_EQ(sequence->capacity, capacity);
}

/// How deep a luma sample lies in the rectangle, whose corners stand on even samples except for the
/// picture's own border; negative outside.
int64_t depthOf(int64_t x, int64_t y, const FaceRect& face, int32_t width, int32_t height) {
  const auto even = [](int64_t corner) { return corner - (corner % 2 + 2) % 2; };
  const int64_t right = face.right == width ? width : even(int64_t{face.right} + 1);
  const int64_t bottom = face.bottom == height ? height : even(int64_t{face.bottom} + 1);
  return std::min({x - even(face.left), y - even(face.top), right - 1 - x, bottom - 1 - y});
}

TEST(Outlines, ChangeTheLinesInsideOfTheRectangleAndNothingElse) {
  test::TracedRandom random;
  const uint8_t color[] = {173, 42, 26};
  for (int round = 0; round < 120; ++round) {
    const int32_t width = random.between(1, 90);
    const int32_t height = round < 110 ? random.between(1, 90) : 960;
    const int32_t line = std::min(width, height) < 640 ? 2 : 4;
    const bool isInterleaved = round % 2 == 0;
    // Some rectangles lie within the picture, some end with it or beyond it, some are inside out.
    FaceRect face = {random.between(-9, width), random.between(-9, height),
                     random.between(0, width + 9), random.between(0, height + 9)};
    if (round % 3 == 0)
      std::tie(face.right, face.bottom) = std::pair(width, height);
    if (round % 12 == 0)
      face = {smallest, smallest, largest, largest};
    if (round % 12 == 1)
      face = {largest, 0, smallest, height};
    SCOPED_TRACE(testing::Message() << width << "x" << height << testing::PrintToString(face));
    const int32_t stride = width + 1 + random.between(0, 9);  // of all planes, also of UV
    const size_t lumaSize = static_cast<size_t>(stride) * static_cast<size_t>(height);
    std::vector<uint8_t> bytes(3 * lumaSize);
    std::ranges::generate(bytes, [&] { return random.byte(); });
    const std::vector<uint8_t> before = bytes;
    uint8_t* chroma = bytes.data() + lumaSize;
    const Component picture[] = {
        {bytes.data(), stride},
        {chroma, stride, isInterleaved ? 2 : 1},
        {isInterleaved ? chroma + 1 : chroma + lumaSize, stride, isInterleaved ? 2 : 1}};
    drawOutlines(picture, width, height, {&face, 1});
    int32_t wrong = 0;
    for (int32_t plane = 0; plane < planeCount; ++plane)
      for (int32_t y = 0; y < planeExtent(plane, height); ++y)
        for (int32_t x = 0; x < planeExtent(plane, width); ++x) {
          const int32_t scale = plane == 0 ? 1 : 2;
          const int64_t depth = depthOf(x * scale, y * scale, face, width, height);
          uint8_t& sample = picture[plane].samples[y * stride + x * picture[plane].step];
          const uint8_t old = before[static_cast<size_t>(&sample - bytes.data())];
          // At a border in an odd place the line may be thicker by the half chroma sample.
          const bool mustBeLine = depth >= 0 && depth < line;
          const bool mayBeLine = depth >= 0 && depth <= line;
          const bool isLine = sample == color[plane];
          wrong += mustBeLine ? !isLine : !(sample == old || (mayBeLine && isLine));
          sample = old;
        }
    EXPECT_EQ(wrong, 0);
    ASSERT_EQ(bytes, before) << "samples around the picture";
  }
}

TEST(FaceNumbers, StayWithTheirFaces) {
  const FaceRect left{10, 10, 50, 50};
  const FaceRect leftLater{14, 12, 54, 52};
  const FaceRect right{100, 10, 140, 50};
  const FaceRect between{30, 10, 70, 50};  // overlaps `left` by a third
  const struct {
    double time;
    std::vector<FaceRect> faces;
    std::vector<int64_t> numbers;
    size_t lost;
  } steps[] = {
      {0.0, {}, {}, 0},
      {0.1, {left}, {1}, 0},
      {0.2, {right, leftLater}, {2, 1}, 0},            // the order doesn't matter
      {0.3, {between, left}, {3, 1}, 1},               // the best overlap does
      {0.4, {}, {}, 3},                                //
      {1.2, {right}, {2}, 2},                          // a gap
      {2.5, {right, left}, {2, 4}, 0},                 // too long a gap
      {2.6, {left, left}, {4, 5}, 1},                  // two at one place
      {0.0, {left, FaceRect{9, 9, 1, 1}}, {4, 6}, 2},  // a clock that jumps back, a face inside out
  };
  FaceNumbers numbers;
  for (const auto& step : steps) {
    SCOPED_TRACE(step.time);
    const auto given = numbers.update(step.faces, step.time);
    EXPECT_EQ(std::vector<int64_t>(given.begin(), given.end()), step.numbers);
    EXPECT_EQ(numbers.lost().size(), step.lost);
  }
}

// --- What is hidden: everything that was found, moments before, between and after too ---

constexpr int64_t number[] = {1};

bool contains(const FaceRect& outer, const FaceRect& inner) {
  return outer.left <= inner.left && outer.top <= inner.top && outer.right >= inner.right &&
         outer.bottom >= inner.bottom;
}

// A face of 40 pixels that moves by two pixels a frame and is found in some frames.
FaceRect faceAt(int32_t frame) {
  return {2 * frame, 100, 2 * frame + 40, 140};
}

FaceCover coverOf(int32_t frames, double rate, auto isFound) {
  FaceCover cover;
  for (int32_t i = 0; i < frames; ++i) {
    const FaceRect face = faceAt(i);
    if (isFound(i))
      cover.add(i / rate, {&face, 1}, number);
    else
      cover.add(i / rate, {}, {});
  }
  return cover;
}

TEST(FaceCover, ClosesGapsAndLeadsInAndOut) {
  struct Case {
    double rate;
    int32_t firstFound, lastBefore, firstAfter, lastFound;
  };
  for (const Case& c : {Case{30, 20, 40, 70, 90}, Case{25, 30, 31, 56, 57}, Case{10, 5, 6, 16, 18},
                        Case{60, 30, 60, 120, 130}}) {
    const auto lead = static_cast<int32_t>(std::floor(c.rate * FaceCover::lead + 1e-6));
    const FaceCover cover = coverOf(200, c.rate, [&](int32_t i) {
      return (i >= c.firstFound && i <= c.lastBefore) || (i >= c.firstAfter && i <= c.lastFound);
    });
    for (int32_t i = 0; i < 200; ++i) {
      const auto covers = cover.at(static_cast<size_t>(i));
      const bool isHidden = i >= c.firstFound - lead && i <= c.lastFound + lead;
      ASSERT_EQ(covers.size(), isHidden ? 1U : 0U) << c.rate << " a second, frame " << i;
      if (i >= c.firstFound && i <= c.lastFound) {
        EXPECT_TRUE(contains(covers[0], faceAt(i))) << i;
      }
    }
  }
  // Longer than a second, it is two appearances.
  const FaceCover cover =
      coverOf(200, 30, [](int32_t i) { return (i >= 20 && i <= 40) || (i >= 72 && i < 90); });
  for (int32_t i = 40; i <= 72; ++i)
    EXPECT_EQ(cover.at(static_cast<size_t>(i)).size(), i <= 50 || i >= 62 ? 1U : 0U) << i;
}

TEST(FaceCover, IsSmoothAndNeverUncoversWhatWasFound) {
  test::Random random(5);
  for (int round = 0; round < 20; ++round) {
    FaceCover cover;
    std::vector<FaceRect> found;
    const double rate = random.between(8, 60);
    for (int32_t i = 0; i < 120; ++i) {
      const auto tremble = [&] { return random.between(-6, 6); };
      found.push_back({i + tremble(), 50 + tremble(), i + 60 + tremble(), 110 + tremble()});
      cover.add(i / rate, {&found.back(), 1}, number);
    }
    int64_t foundMoves = 0;
    int64_t coverMoves = 0;
    FaceRect before = cover.at(0).at(0);
    for (size_t i = 1; i < found.size(); ++i) {
      const FaceRect now = cover.at(i).at(0);
      ASSERT_TRUE(contains(now, found[i])) << rate << " a second, frame " << i;
      EXPECT_LE(now.right - now.left, 60 + 2 * 6 + static_cast<int>(0.4 * rate) + 14) << i;
      coverMoves += std::abs(now.top - before.top);
      foundMoves += std::abs(found[i].top - found[i - 1].top);
      before = now;
    }
    if (rate >= 24) {
      EXPECT_LT(coverMoves, foundMoves / 2) << rate;
    }
  }
}

TEST(FaceCover, KnowsEnoughAfterItsLookAheadAndForgetsTheRest) {
  test::Random random(6);
  FaceCover whole;
  FaceCover brief;
  std::vector<std::vector<FaceRect>> soon;
  constexpr double rate = 30;
  const auto delay = static_cast<size_t>(std::ceil(FaceCover::lookAhead * rate));
  int64_t appearance = 0;
  int32_t lastFound = -1000;
  for (int32_t i = 0; i < 3000; ++i) {
    const FaceRect face = faceAt(i);
    const bool isFound = random.chance(0.05);
    // A track of its own for each appearance, as FaceNumbers has it; time stamps that start again.
    if (isFound && i - lastFound > rate)
      ++appearance;
    lastFound = isFound ? i : lastFound;
    for (FaceCover* cover : {&whole, &brief})
      cover->add(i % 100 / rate, {&face, isFound ? 1U : 0U}, {&appearance, isFound ? 1U : 0U});
    if (brief.frames() > delay + 3) {  // no time passes at the three stamps that go back
      const size_t shown = brief.frames() - 1 - delay - 3;
      soon.push_back(brief.at(shown));
      brief.forgetBefore(shown);
      EXPECT_GE(brief.secondsSince(shown), FaceCover::lookAhead - 1e-6);
    }
  }
  for (size_t i = 0; i < soon.size(); ++i)
    EXPECT_EQ(whole.at(i), soon[i]) << i;
}

}  // namespace
}  // namespace tavro::host
