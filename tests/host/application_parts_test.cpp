// The application's parts that can be told right from wrong without a video.

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <numeric>
#include <random>
#include <vector>

#include "host/app/annotation.h"
#include "host/app/json_lines.h"
#include "host/app/statistics.h"

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

TEST(JsonLine, KeysAndNumbers) {
  const FaceRect faces[] = {{-1, 2, 3, 4}, {5, 6, 7, 8}};
  EXPECT_EQ(jsonLine({.frame = 0, .time = 0.0, .width = 1280, .height = 720, .milliseconds = 1.23}),
            R"({"frame":0,"time":0.0,"width":1280,"height":720,"faces":[],"ms":1.23})");
  EXPECT_EQ(
      jsonLine({.frame = 7,
                .time = 1.0 / 3,
                .width = 1,
                .height = 1,
                .faces = faces,
                .milliseconds = 12.0004}),
      R"({"frame":7,"time":0.333333,"width":1,"height":1,"faces":[{"left":-1,"top":2,"right":3,)"
      R"("bottom":4},{"left":5,"top":6,"right":7,"bottom":8}],"ms":12.0})");
  // Still JSON, whatever a broken file's time stamps come to.
  EXPECT_NE(jsonLine({.time = -1e-9}).find(R"("time":0.0,)"), std::string::npos);
  EXPECT_NE(jsonLine({.time = std::numeric_limits<double>::quiet_NaN()}).find(R"("time":0.0,)"),
            std::string::npos);
  EXPECT_NE(jsonLine({.time = 1e300}).find(R"("time":1000)"), std::string::npos);
}

/// How many samples of a plane differ from 0, and the box around them.
struct Mark {
  int32_t count = 0, left = 0, top = 0, right = 0, bottom = 0;
};
Mark markOf(const I420Frame& frame, int32_t plane) {
  Mark mark{.left = frame.planeWidth(plane), .top = frame.planeHeight(plane)};
  for (int32_t y = 0; y < frame.planeHeight(plane); ++y)
    for (int32_t x = 0; x < frame.planeWidth(plane); ++x)
      if (frame.planeData(plane)[y * frame.planeStride(plane) + x] != 0) {
        ++mark.count;
        mark.left = std::min(mark.left, x);
        mark.top = std::min(mark.top, y);
        mark.right = std::max(mark.right, x + 1);
        mark.bottom = std::max(mark.bottom, y + 1);
      }
  return mark;
}

TEST(Annotation, OutlinesJustTheRectangle) {
  const auto frame = I420Frame::allocate(100, 80);
  const FaceRect face{10, 20, 50, 60};
  const auto drawn = withRectangles(*frame, {&face, 1});
  ASSERT_TRUE(drawn.has_value());
  const Mark luma = markOf(*drawn, 0);
  EXPECT_EQ(luma.count, 40 * 40 - 36 * 36);  // 2 pixels thick
  EXPECT_EQ(std::pair(luma.left, luma.top), std::pair(10, 20));
  EXPECT_EQ(std::pair(luma.right, luma.bottom), std::pair(50, 60));
  for (const int32_t plane : {1, 2})
    EXPECT_EQ(markOf(*drawn, plane).count, 20 * 20 - 18 * 18);
  EXPECT_EQ(markOf(*frame, 0).count, 0);  // the frame itself is left as it is
}

TEST(Annotation, ClipsWhateverTheDetectorSays) {
  constexpr int32_t largest = std::numeric_limits<int32_t>::max();
  constexpr int32_t smallest = std::numeric_limits<int32_t>::min();
  const FaceRect faces[] = {
      {smallest, smallest, largest, largest},
      {largest, largest, smallest, smallest},
      {-5, -5, 3, 3},
      {30, 30, 30, 30},
      {40, 20, 10, 10},
      {36, -100, 1000, 1000},
      {0, 0, 1, 1},
  };
  for (const auto& [width, height] : {std::pair{1, 1}, {37, 21}, {64, 48}}) {
    const auto frame = I420Frame::allocate(width, height);
    const auto drawn = withRectangles(*frame, faces);
    ASSERT_TRUE(drawn.has_value());
    EXPECT_GT(markOf(*drawn, 0).count, 0);
  }
}

}  // namespace
}  // namespace tavro::host
