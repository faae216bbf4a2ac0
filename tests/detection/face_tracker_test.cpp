// The filter's table of known answers and the tracker's life of a face: which overlap leads to
// which update, which tracks go, in which order they are reported.

#include "modules/face_detection/face_tracker.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <utility>
#include <vector>

#include "modules/face_detection/truncation.h"
#include "tests/support/frames.h"

namespace TavroRTC::FDModule {
namespace {

constexpr int32_t lowest = std::numeric_limits<int32_t>::min();
constexpr int32_t highest = std::numeric_limits<int32_t>::max();

TEST(Truncation, TowardZeroAndWithinRange) {
  constexpr float infinite = std::numeric_limits<float>::infinity();
  const std::pair<float, int32_t> cases[] = {{107.886F, 107},
                                             {-47.886F, -47},
                                             {-0.99F, 0},
                                             {2147483520.0F, 2147483520},
                                             {2147483648.0F, highest},
                                             {-2147483648.0F, lowest},
                                             {-3e9F, lowest},
                                             {infinite, highest},
                                             {-infinite, lowest},
                                             {std::numeric_limits<float>::quiet_NaN(), 0}};
  for (const auto& [value, expected] : cases)
    EXPECT_EQ(truncateToInt32(value), expected) << value;
}

TEST(OneEuroFilter, KnownAnswersForEachCoordinate) {
  // From rest: a rise, no change, a fall and a fall below zero. A fall isn't the mirror image of a
  // rise, since truncation goes toward zero.
  FaceTrack track(FaceRect{100, 100, 110, -40});
  ASSERT_TRUE(filterUpdate(track, FaceTrack::Coordinates{110, 100, 100, -50}));
  EXPECT_EQ(track.rect, (FaceTrack::Coordinates{107, 100, 102, -47}));
  EXPECT_EQ(track.previous, track.rect);
  EXPECT_FLOAT_EQ(track.derivative[0], 6.874135F);
  EXPECT_EQ(track.derivative[1], 0.0F);
  EXPECT_FLOAT_EQ(track.derivative[2], -6.874135F);

  // From there, in motion: rate 3 * 0.6874135 + 0.3125865 * 6.874135 = 4.211; cut-off 0.46055,
  // factor 0.74318, and 107 + 3 * 0.74318 = 109.2.
  ASSERT_TRUE(filterUpdate(track, FaceTrack::Coordinates{110, 100, 102, -47}));
  EXPECT_EQ(track.rect, (FaceTrack::Coordinates{109, 100, 102, -47}));
  EXPECT_NEAR(track.derivative[0], 4.21102, 1e-4);

  // By hand 7.006, 18.995, 71.004 and 71.997: a cut-off at rest or a slope that is 2 % off would
  // move one of them by a pixel.
  track = FaceTrack(FaceRect{0, 0, 0, 0});
  ASSERT_TRUE(filterUpdate(track, FaceTrack::Coordinates{9, 22, 75, 76}));
  EXPECT_EQ(track.rect, (FaceTrack::Coordinates{7, 18, 71, 71}));
}

TEST(OneEuroFilter, HoldMovesTheFilterAndNotTheRectangle) {
  FaceTrack track(FaceRect{100, 100, 200, 200});
  const FaceTrack::Coordinates shown = track.rect;
  const FaceTrack::Coordinates input = {110, 100, 200, 190};
  ASSERT_TRUE(filterHold(track, input));
  EXPECT_EQ(track.rect, shown);
  EXPECT_EQ(track.previous, input);
  EXPECT_FLOAT_EQ(track.derivative[0], 6.874135F);
  ASSERT_TRUE(filterHold(track, input));
  EXPECT_FLOAT_EQ(track.derivative[0], 6.874135F * (1 - 0.6874135F));

  // An update goes on from the held input, 110, and not from the rectangle on display.
  ASSERT_TRUE(filterUpdate(track, input));
  EXPECT_EQ(track.rect, input);

  ASSERT_TRUE(filterReset(track, FaceTrack::Coordinates{1, 2, 3, 4}));
  EXPECT_EQ(track.rect, (FaceTrack::Coordinates{1, 2, 3, 4}));
  EXPECT_EQ(track.previous, track.rect);
  EXPECT_EQ(track.derivative, (std::array<float, 4>{}));
}

TEST(OneEuroFilter, RefusesWrongLengthsAndSurvivesExtremes) {
  const int32_t input[] = {lowest, highest, 0, highest, 5};
  for (const auto filter : {filterUpdate, filterHold, filterReset}) {
    FaceTrack track(FaceRect{1, 2, 3, 4});
    for (const size_t length : {size_t{0}, size_t{3}, size_t{5}})
      EXPECT_FALSE(filter(track, std::span(input, length)));
    EXPECT_EQ(track.faceRect(), (FaceRect{1, 2, 3, 4}));
    EXPECT_EQ(track.previous, track.rect);
    EXPECT_EQ(track.derivative, (std::array<float, 4>{}));
    EXPECT_TRUE(filter(track, std::span(input, 4)));
    EXPECT_TRUE(filter(track, FaceTrack::Coordinates{highest, lowest, highest, lowest}));
  }
}

TEST(RectIoU, CountsNoBorderPixel) {
  EXPECT_EQ(rectIoU({0, 0, 10, 10}, {0, 0, 10, 10}), 1.0F);
  EXPECT_EQ(rectIoU({0, 0, 10, 10}, {5, 5, 15, 15}), 25.0F / 175.0F);
  EXPECT_EQ(rectIoU({0, 0, 10, 10}, {10, 0, 20, 10}), 0.0F);
  EXPECT_EQ(rectIoU({0, 0, 10, 10}, {0, 20, 10, 30}), 0.0F);
  EXPECT_EQ(rectIoU({0, 0, 10, 10}, {20, 20, 30, 30}), 0.0F);  // both sides negative
  EXPECT_TRUE(std::isnan(rectIoU({5, 5, 5, 5}, {7, 7, 7, 7})));
  // Areas beyond 32 bits, as a face far larger than a large frame has.
  EXPECT_EQ(rectIoU({0, 0, 65536, 65536}, {0, 0, 65536, 32768}), 0.5F);
  EXPECT_EQ(rectIoU({lowest, lowest, highest, highest}, {lowest, lowest, highest, highest}), 1.0F);
}

using Rects = std::vector<FaceRect>;

TEST(FaceTracker, OverlapDecidesTheUpdate) {
  // A box inside a track of 10 million columns and one row: the overlap is its own width over the
  // track's. Each limit is met by the float nearest to it, and missed by 1e-7.
  enum Update { hold, update, reset, none };
  struct Case {
    int32_t width;
    Update expected;
  };
  constexpr int32_t full = 10'000'000;
  const Case cases[] = {{full, hold},        {8'500'000, hold},  {8'499'999, update},
                        {5'500'000, update}, {5'499'999, reset}, {3'000'000, reset},
                        {2'999'999, none}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.width);
    const FaceRect shown = {0, 0, full, 1};
    const FaceRect box = {0, 0, c.width, 1};
    std::vector<FaceTrack> tracks = {FaceTrack(shown)};
    std::vector<FaceRect> unmatched;
    associateTracks(Rects{box}, unmatched, tracks);
    EXPECT_EQ(unmatched.size(), c.expected == none ? 1U : 0U);
    const FaceTrack& result = tracks.front();
    EXPECT_EQ(result.faceRect() == shown, c.expected == hold || c.expected == none);
    EXPECT_EQ(result.faceRect() == box, c.expected == reset || c.width == full);
    EXPECT_EQ(result.derivative[2] != 0,
              c.expected == update || (c.expected == hold && c.width != full));

    tracks = {FaceTrack(shown)};
    pruneTracks(Rects{box}, tracks);
    EXPECT_EQ(tracks.size(), c.expected == none ? 0U : 1U);
  }
}

/// The rectangles after one more frame.
Rects track(const Rects& boxes, std::vector<FaceTrack>& tracks) {
  updateTracks(boxes, tracks);
  Rects rects;
  for (const FaceTrack& each : tracks)
    rects.push_back(each.faceRect());
  return rects;
}

TEST(FaceTracker, FacesComeStayAndGoInOrder) {
  const FaceRect left = {0, 0, 100, 100};
  const FaceRect middle = {200, 0, 300, 100};
  const FaceRect right = {400, 0, 500, 100};
  const FaceRect moved = {420, 20, 520, 120};  // overlaps it by 0.47: taken over at once
  const FaceRect far = {480, 80, 580, 180};    // by 0.09: another face
  const struct {
    Rects boxes, expected;
  } frames[] = {{{middle, left}, {middle, left}},
                {{right, left, middle}, {middle, left, right}},  // the newcomer comes last
                {{right, middle}, {middle, right}},
                {{moved, left, middle}, {middle, moved, left}},
                {{far}, {far}},
                {{}, {}},
                {{left}, {left}}};
  std::vector<FaceTrack> tracks;
  for (const auto& frame : frames)
    EXPECT_EQ(track(frame.boxes, tracks), frame.expected);
  EXPECT_EQ(tracks.front().derivative, (std::array<float, 4>{}));
}

TEST(FaceTracker, BoxesChooseTheirTracksOneAfterTheOther) {
  const FaceRect face = {0, 0, 100, 100}, near = {40, 0, 140, 100}, further = {80, 0, 180, 100};
  const FaceRect empty = {5, 5, 5, 5};
  const struct {
    const char* what;
    Rects before, boxes, expected;
  } cases[] = {
      {"the better of two; the other overlaps by 0.25 and goes",
       {face, {25, 0, 125, 100}},
       {{60, 0, 160, 100}},
       {{60, 0, 160, 100}}},
      {"of equals the first; the other stays as long as the box overlaps it enough",
       {face, face},
       {near},
       {near, face}},
      // Near overlaps the face by 0.43, and further overlaps near by 0.43, but the face by 0.11.
      {"a second box meets what the first has left", {face}, {near, further}, {further}},
      {"in the other order it is a face of its own", {face}, {further, near}, {near, further}},
      {"empty ones match nothing", {empty, empty}, {empty}, {empty}},
  };
  for (const auto& c : cases) {
    std::vector<FaceTrack> tracks(c.before.begin(), c.before.end());
    EXPECT_EQ(track(c.boxes, tracks), c.expected) << c.what;
  }
}

}  // namespace
}  // namespace TavroRTC::FDModule
