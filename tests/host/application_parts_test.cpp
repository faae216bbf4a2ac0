// The application's parts that can be checked without a video.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <numbers>
#include <numeric>
#include <random>
#include <set>
#include <span>
#include <vector>

#include "host/app/input/live_pace.h"
#include "host/app/output/best_faces.h"
#include "host/app/output/drawing.h"
#include "host/app/output/text_format.h"
#include "host/app/search/statistics.h"
#include "tests/support/frames.h"

namespace tavro::host {
namespace {

using TavroRTC::FDModule::FaceRect;

TEST(Statistics, SummaryByRank) {
  EXPECT_EQ(summarize({}).maximum, 0.0);
  EXPECT_EQ(summarize({3.0}).p99, 3.0);
  EXPECT_EQ(summarize({4.0, 1.0}).median, 2.5);
  std::vector<double> values(200);
  std::iota(values.begin(), values.end(), 1.0);
  std::shuffle(values.begin(), values.end(), std::minstd_rand(1));
  const TimingSummary summary = summarize(values);
  EXPECT_EQ(summary.minimum, 1.0);
  EXPECT_EQ(summary.median, 100.5);
  EXPECT_EQ(summary.p99, 198.0);
  EXPECT_EQ(summary.maximum, 200.0);
}

TEST(LivePace, LeavesOutWhatTheDetectorIsTooSlowForAndNothingElse) {
  for (const auto& [cost, expected] : {std::pair{0.005, 999}, {0.1, 400}}) {
    LivePace pace;
    double now = 0.0;
    int shown = 0;
    for (int i = 0; i < 1000; ++i) {
      const double arrival = i * 0.04 + (i < 300 ? 0.0 : 3.0);  // the sender stalls once
      now = std::max(now + 0.001, arrival);
      if (pace.isLate(i * 0.04, now))
        continue;
      EXPECT_LT(now - arrival, 0.4);
      now += cost;
      ++shown;
    }
    EXPECT_NEAR(shown, expected, 20);
  }
}

TEST(TextFormats, JsonLinesKeysAndNumbers) {
  const auto jsonLine = [](const FrameResult& result) { return makeJsonLines()->frame(result); };
  const FaceRect faces[] = {{-1, 2, 3, 4}, {5, 6, 7, 8}};
  const int64_t numbers[] = {1, 4};
  EXPECT_EQ(
      jsonLine({.frame = 7,
                .time = 1.0 / 3,
                .width = 1,
                .height = 1,
                .faces = faces,
                .milliseconds = 12.0004,
                .faceNumbers = numbers}),
      R"({"frame":7,"time":0.333333,"width":1,"height":1,"faces":[{"number":1,"left":-1,)"
      R"("top":2,"right":3,"bottom":4},{"number":4,"left":5,"top":6,"right":7,"bottom":8}],"ms":12.0})"
      "\n");
  // Still JSON, whatever the time stamps of a broken file are.
  EXPECT_NE(jsonLine({.time = -1e-9}).find(R"("time":0.0,)"), std::string::npos);
  EXPECT_NE(jsonLine({.time = std::numeric_limits<double>::quiet_NaN()}).find(R"("time":0.0,)"),
            std::string::npos);
  EXPECT_NE(jsonLine({.time = 1e300}).find(R"("time":1000)"), std::string::npos);
}

TEST(TextFormats, CsvHasALineForEveryFaceAndEveryFrameWithoutOne) {
  const FaceRect faces[] = {{-1, 2, 3, 4}, {5, 6, 7, 8}};
  const int64_t numbers[] = {1, 4};
  const auto csv = makeCsv();
  EXPECT_EQ(csv->frame({.width = 9, .height = 8, .milliseconds = 0.5}),
            "frame,time,width,height,face,left,top,right,bottom,ms\n0,0.0,9,8,,,,,,0.5\n");
  EXPECT_EQ(csv->frame({.frame = 1,
                        .time = 0.04,
                        .width = 9,
                        .height = 8,
                        .faces = faces,
                        .milliseconds = 1.0,
                        .faceNumbers = numbers}),
            "1,0.04,9,8,1,-1,2,3,4,1.0\n1,0.04,9,8,4,5,6,7,8,1.0\n");
}

I420Frame noise(int32_t width, int32_t height) {
  test::Random random(1);
  return test::randomFrame(random, width, height);
}

std::span<const uint8_t> samplesOf(const I420Frame& frame, int32_t plane) {
  return {frame.planeData(plane), static_cast<size_t>(frame.planeStride(plane)) *
                                      static_cast<size_t>(frame.planeHeight(plane))};
}

constexpr int32_t largest = std::numeric_limits<int32_t>::max();
constexpr int32_t smallest = std::numeric_limits<int32_t>::min();
constexpr FaceRect anywhere[] = {
    {40, 30, 100, 90},          {41, 31, 92, 93},   {-50, -50, 20, 20},
    {150, 80, 300, 400},        {0, 0, 160, 96},    {5, 5, 6, 6},
    {90, 50, 70, 40},           {200, 10, 240, 50}, {smallest, smallest, largest, largest},
    {largest, 0, smallest, 20},
};

TEST(Anonymisation, LeavesThirtySixMeansOfAFaceAndTheRestAlone) {
  for (const auto& [width, height] : {std::pair{160, 96}, {161, 97}, {1, 1}, {3, 2}})
    for (const FaceRect& face : anywhere) {
      SCOPED_TRACE(testing::Message() << width << "x" << height << ", " << face.left << " "
                                      << face.top << " " << face.right << " " << face.bottom);
      const I420Frame frame = noise(width, height);
      auto hidden = copyOf(frame);
      hideFace(*hidden, face, {Hiding::pixelate});
      // Whatever hides a face makes the same of it and of its means.
      for (const Hiding how : {Hiding::pixelate, Hiding::blur, Hiding::solid}) {
        auto ofFace = copyOf(frame);
        auto ofMeans = copyOf(*hidden);
        hideFace(*ofFace, face, {how});
        hideFace(*ofMeans, face, {how});
        for (int32_t plane = 0; plane < planeCount; ++plane)
          EXPECT_TRUE(std::ranges::equal(samplesOf(*ofFace, plane), samplesOf(*ofMeans, plane)))
              << static_cast<int>(how);
      }
      const int64_t marginX = (int64_t{face.right} - face.left) / 4 + 2;
      const int64_t marginY = (int64_t{face.bottom} - face.top) / 4 + 2;
      for (int32_t plane = 0; plane < planeCount; ++plane) {
        std::set<int> colours;
        for (int32_t y = 0; y < frame.planeHeight(plane); ++y)
          for (int32_t x = 0; x < frame.planeWidth(plane); ++x) {
            const uint8_t after = hidden->planeData(plane)[y * hidden->planeStride(plane) + x];
            const int64_t left = plane == 0 ? x : 2 * x;
            const int64_t top = plane == 0 ? y : 2 * y;
            if (left >= face.left && left < face.right && top >= face.top && top < face.bottom) {
              colours.insert(after);
            } else if (left < face.left - marginX || left >= face.right + marginX ||
                       top < face.top - marginY || top >= face.bottom + marginY) {
              ASSERT_EQ(after, frame.planeData(plane)[y * frame.planeStride(plane) + x]);
            }
          }
        EXPECT_LE(colours.size(), 36U);
      }
    }
}

TEST(Anonymisation, CoversTheMarginAndNothingBeyondTheShape) {
  for (const HidingShape shape : {HidingShape::rectangle, HidingShape::ellipse})
    for (const int32_t percent : {0, 25, 40})
      for (const FaceRect& face : anywhere) {
        SCOPED_TRACE(testing::Message() << static_cast<int>(shape) << " " << percent << " "
                                        << face.left << " " << face.top << " " << face.right);
        auto frame = copyOf(test::plainFrame(161, 97));
        for (int32_t plane = 0; plane < planeCount; ++plane)
          std::fill_n(frame->writablePlane(plane), samplesOf(*frame, plane).size(), uint8_t{200});
        hideFace(*frame, face, {Hiding::solid, shape, percent});
        const auto [left, top, right, bottom] = withMargin(face, percent);
        const double middleX = (double(left) + right) / 2;
        const double middleY = (double(top) + bottom) / 2;
        const double halfWidth = (double(right) - left) / 2;
        const double halfHeight = (double(bottom) - top) / 2;
        for (int32_t plane = 0; plane < planeCount; ++plane)
          for (int32_t y = 0; y < frame->planeHeight(plane); ++y)
            for (int32_t x = 0; x < frame->planeWidth(plane); ++x) {
              const bool isHidden =
                  frame->planeData(plane)[y * frame->planeStride(plane) + x] != 200;
              const double part = plane == 0 ? 1 : 2;
              const double nearX = std::clamp(middleX, x * part, (x + 1) * part) - middleX;
              const double nearY = std::clamp(middleY, y * part, (y + 1) * part) - middleY;
              if (halfWidth > 0 && halfHeight > 0 && std::abs(nearX) < halfWidth &&
                  std::abs(nearY) < halfHeight) {
                ASSERT_TRUE(isHidden) << plane << ": " << x << " " << y;
              } else if (isHidden) {
                ASSERT_TRUE(shape == HidingShape::ellipse) << plane << ": " << x << " " << y;
                // A pixel's width of rounding.
                ASSERT_LE(std::hypot(std::max(0.0, std::abs(nearX) - part) / halfWidth,
                                     std::max(0.0, std::abs(nearY) - part) / halfHeight),
                          std::numbers::sqrt2)
                    << plane << ": " << x << " " << y;
              }
            }
      }
}

TEST(BestFaces, CutsWhereverTheFaceIs) {
  for (const auto& [width, height] : {std::pair{160, 96}, {161, 97}, {1, 1}, {3, 2}, {2, 900}})
    for (const int32_t limit : {0, 16})
      for (const FaceRect& face : anywhere) {
        const I420Frame frame = noise(width, height);
        const auto cut = cutOut(frame, face, limit);
        EXPECT_EQ(cut.has_value(), faceQuality(frame, face) > 0.0);
        if (limit != 0 && cut.has_value()) {
          EXPECT_LE(std::max(cut->width(), cut->height()), limit);
        }
      }
  // A square of one and a half times the face, with the face in its middle.
  auto frame = test::plainFrame(160, 96, 0);
  for (int32_t y = 40; y < 60; ++y)
    std::fill_n(frame.writablePlane(0) + y * 160 + 60, 20, uint8_t{200});
  const auto cut = cutOut(frame, {60, 40, 80, 60}, 0);
  ASSERT_TRUE(cut.has_value());
  EXPECT_EQ(std::pair(cut->width(), cut->height()), std::pair(30, 30));
  for (const auto& [x, y, luma] : {std::array{7, 7, 200}, {24, 24, 200}, {15, 4, 0}, {27, 15, 0}})
    EXPECT_EQ(cut->planeData(0)[y * cut->planeStride(0) + x], luma) << x << " " << y;
  // Sharp beats blurred, whole beats half.
  const I420Frame sharp = noise(160, 96);
  auto blurred = copyOf(sharp);
  hideFace(*blurred, {40, 20, 100, 80}, {Hiding::blur});
  EXPECT_GT(faceQuality(sharp, {40, 20, 100, 80}), 2 * faceQuality(*blurred, {40, 20, 100, 80}));
  EXPECT_GT(faceQuality(sharp, {40, 20, 100, 80}), 2 * faceQuality(sharp, {-30, 20, 30, 80}));
}

}  // namespace
}  // namespace tavro::host
