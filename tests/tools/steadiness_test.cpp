// The figures of jitter, for sequences whose figures can be worked out by hand.

#include "tools/jitter/steadiness.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

namespace tavro::jitter {
namespace {

FaceRect square(int32_t left, int32_t top, int32_t side) {
  return {left, top, left + side, top + side};
}

TEST(Steadiness, CountsWhatMovesGoesAndComes) {
  const Sighting resting[] = {
      {0.0, {square(0, 0, 10)}},
      {0.1, {square(2, 0, 10)}},
      {0.2, {square(2, 0, 10)}},
      {0.3, {}},
      {0.4, {square(2, 0, 10)}},  // again: a flip
      {0.5, {}},
      {0.6, {square(11, 0, 10)}}  // near, but another one: a switch
  };
  const Steadiness steady = measure(resting);
  EXPECT_EQ(steady.steps, 2);
  EXPECT_NEAR(steady.centreDeviation, std::sqrt(0.2 * 0.2 / 4 - 0.05 * 0.05), 1e-12);
  EXPECT_NEAR(steady.centreP99, 0.2, 1e-12);
  EXPECT_EQ(steady.sizeDeviation, 0.0);
  EXPECT_NEAR(steady.meanLoss, (1.0 - 80.0 / 120.0) / 2, 1e-12);
  EXPECT_NEAR(steady.flipsPerMinute, 100.0, 1e-9);
  EXPECT_NEAR(steady.switchesPerMinute, 100.0, 1e-9);

  const Sighting growing[] = {{0.0, {square(0, 0, 10)}},
                              {1.0 / 30, {square(0, 0, 12)}},
                              {2.0 / 30, {square(0, 0, 10), square(500, 0, 10)}}};
  const Steadiness grown = measure(growing);
  EXPECT_EQ(grown.steps, 2);
  EXPECT_NEAR(grown.centreP99, std::sqrt(2.0) / 11, 1e-12);
  EXPECT_NEAR(grown.centreDeviation, 1.0 / 11, 1e-12);
  EXPECT_NEAR(grown.sizeDeviation, 2.0 / 11, 1e-12);
  EXPECT_NEAR(grown.sizeP99, 2.0 / 11, 1e-12);
  EXPECT_NEAR(grown.meanLoss, 1.0 - 100.0 / 144.0, 1e-12);
  EXPECT_EQ(grown.flipsPerMinute, 0.0);
  EXPECT_EQ(grown.switchesPerMinute, 0.0);

  EXPECT_EQ(measure({}).steps, 0);
  EXPECT_TRUE(std::isnan(measure({resting, 1}).meanLoss));  // not a steady one
}

TEST(Following, FindsTheDelay) {
  const auto wayAt = [](double frame) {
    const double angle = 2 * std::numbers::pi * frame / 60;
    return square(static_cast<int32_t>(std::lround(1000 + 400 * std::sin(angle))),
                  static_cast<int32_t>(std::lround(500 + 100 * std::cos(2 * angle))), 400);
  };
  for (const double delay : {0.0, 0.5, 3.0, 7.25}) {
    std::vector<FaceRect> truth;
    std::vector<Sighting> sightings;
    for (int frame = 0; frame < 200; ++frame) {
      truth.push_back(wayAt(frame));
      FaceRect face = wayAt(frame - delay);
      for (int32_t* edge : {&face.left, &face.right})
        *edge += 30;  // a network that sees faces further to the right is no delay
      sightings.push_back({frame / 30.0, {}});
      if (frame % 4 != 0)
        sightings.back().faces = {square(0, 2000, 400), face};
    }
    const Following following = compare(sightings, truth);
    EXPECT_NEAR(following.lagFrames, delay, 0.1);
    EXPECT_EQ(following.foundShare, 0.75);
    if (delay == 0.0) {
      EXPECT_NEAR(following.meanDistance, 30.0 / 400, 1e-12);
    }
  }
}

}  // namespace
}  // namespace tavro::jitter
