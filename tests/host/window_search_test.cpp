// Windows of a frame, without a detector: the plan, and what is made of the rectangles that several
// windows report.

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "host/core/face_merging.h"
#include "host/core/window_plan.h"
#include "tests/support/frames.h"
#include "tests/support/random.h"

namespace tavro::host {
namespace {

using TavroRTC::FDModule::FaceRect;

/// The sizes of the windows, each with how many there are: "480x270 270x270*2".
std::string sizesOf(const std::vector<Window>& windows) {
  std::ostringstream text;
  for (auto window = windows.begin(); window != windows.end();) {
    const auto end = std::find_if_not(window, windows.end(), [&](const Window& other) {
      return other.width == window->width && other.height == window->height;
    });
    text << (window == windows.begin() ? "" : " ") << window->width << 'x' << window->height;
    if (end - window > 1)
      text << '*' << end - window;
    window = end;
  }
  return text.str();
}

TEST(WindowPlan, HasTheFewestLayersThatShowTheSmallestFace) {
  const struct {
    int32_t width, height, smallestFace, mostWindows;
    const char* sizes;
    int32_t reached;
  } cases[] = {
      {1920, 1080, 0, 64, "1920x1080", 120},
      {1920, 1080, 120, 64, "1920x1080", 120},
      {1920, 1080, 119, 64, "1920x1080 1080x1080*2", 68},  // 16:9
      {1920, 1080, 39, 64, "1920x1080 1080x1080*2 618x618*8", 39},
      {1920, 1080, 30, 64, "1920x1080 1080x1080*2 432x432*18", 27},
      {1920, 1080, 24, 64, "1920x1080 1080x1080*2 618x618*8 334x334*28", 21},
      {1920, 1080, 24, 38, "1920x1080 1080x1080*2 432x432*18", 27},
      {1920, 1080, 24, 2, "1920x1080", 120},
      {1990, 1080, 100, 64, "1990x1080 1080x1080*3", 68},  // two would overlap by less than a fifth
      {1080, 1920, 39, 64, "1080x1920 1080x1080*2 618x618*8", 39},  // 9:16
      {640, 480, 30, 64, "640x480 480x480*2", 30},                  // 4:3
      {640, 480, 20, 64, "640x480 480x480*2 276x276*6", 18},
      {640, 640, 30, 64, "640x640 366x366*4", 23},  // 1:1, whose largest square it is itself
      {1280, 1024, 70, 64, "1280x1024 586x586*6", 37},
      {2560, 1080, 50, 64, "2560x1080 1080x1080*3 618x618*10", 39},  // 21:9
      {4000, 500, 32, 64, "4000x500 500x500*15", 32},  // faces up to 250 are whole in a square
      {96, 64, 1, 64, "96x64", 6},                     // tiny: enlarged, but no more than twice
      {150, 120, 1, 64, "150x120 70x70*6", 5},
      // The odd column and row belong to windows.
      {481, 271, 17, 64, "481x271 270x271 271x271", 17},
      {32768, 32768, 24, 64, "32768x32768 13108x13108*9 5958x5958*49", 373},
      {INT32_MAX, INT32_MAX, 1, 4, "2147483647x2147483647", 134217728},
      {1, 1, 1, 64, "1x1", 1},
  };
  for (const auto& expected : cases) {
    SCOPED_TRACE(testing::Message() << expected.width << "x" << expected.height << ", "
                                    << expected.smallestFace << ", " << expected.mostWindows);
    const WindowPlan plan =
        planWindows(expected.width, expected.height,
                    {.smallestFace = expected.smallestFace, .mostWindows = expected.mostWindows});
    EXPECT_EQ(sizesOf(plan.windows), expected.sizes);
    EXPECT_EQ(plan.smallestFace, expected.reached);
    EXPECT_EQ(plan.areas, std::vector<size_t>{0});
  }
}

TEST(WindowPlan, LooksAtRegionsAlone) {
  const WindowPlan plan = planWindows(
      1280, 720,
      {.smallestFace = 20,
       .mostWindows = 30,
       .regions = {
           {-10, 101, 331, 99}, {2000, 0, 10, 10}, {700, 20, 480, 640}, {1279, 719, 5, 5}}});
  EXPECT_EQ(sizesOf(plan.windows), "322x100 100x100*4 480x640 480x480*2 276x276*6 2x2");
  EXPECT_EQ(plan.windows[0], (Window{0, 100, 322, 100}));
  EXPECT_EQ(plan.areas, (std::vector<size_t>{0, 5, 14}));
  for (size_t i = 5; i < 14; ++i)
    EXPECT_TRUE(plan.windows[i].x >= 700 && plan.windows[i].y >= 20);
  // Twice the same region, and one that is a square of another.
  const WindowPlan shared = planWindows(
      640, 360,
      {.smallestFace = 20, .regions = {{0, 0, 480, 240}, {0, 0, 480, 240}, {240, 0, 240, 240}}});
  EXPECT_EQ(sizesOf(shared.windows), "480x240 240x240*3");
  EXPECT_EQ(shared.areas, (std::vector<size_t>{0, 3}));
  EXPECT_TRUE(planWindows(64, 64, {.regions = {{64, 0, 2, 2}}}).windows.empty());
}

/// True if the face is whole in the window, and covers 12 of its 192 pixels.
bool shows(const Window& window, const FaceRect& face) {
  const int32_t longer = std::max(window.width, window.height);
  return face.left >= window.x && face.top >= window.y && face.right <= window.x + window.width &&
         face.bottom <= window.y + window.height &&
         (face.right - face.left) * 192 >= seenSize * (longer - 1);  // it may reach an odd edge
}

TEST(WindowPlan, ShowsEveryFaceWholeInOneWindow) {
  test::TracedRandom random;
  for (int32_t i = 0; i < test::caseCount(300); ++i) {
    const int32_t shorter = random.between(40, 1500);
    const int32_t longer = random.between(shorter, std::min(8 * shorter, 4000));
    const bool isWide = random.chance(0.5);
    const int32_t width = isWide ? longer : shorter;
    const int32_t height = isWide ? shorter : longer;
    const int32_t smallest = std::clamp(longer / random.between(4, 250), 6, shorter);
    SCOPED_TRACE(testing::Message() << width << "x" << height << ", " << smallest);
    const WindowPlan plan =
        planWindows(width, height, {.smallestFace = smallest, .mostWindows = 1000000});
    EXPECT_LE(plan.smallestFace, smallest);
    for (const Window& window : plan.windows) {
      EXPECT_TRUE(window.x % 2 == 0 && window.y % 2 == 0 && window.x >= 0 && window.y >= 0);
      EXPECT_TRUE(window.width % 2 == 0 || window.x + window.width == width);
      EXPECT_TRUE(window.height % 2 == 0 || window.y + window.height == height);
      EXPECT_TRUE(window.x + window.width <= width && window.y + window.height <= height);
      EXPECT_EQ(std::ranges::count(plan.windows, window), 1);
    }
    for (int32_t f = 0; f < 200; ++f) {
      const int32_t size = random.between(smallest, random.chance(0.5) ? smallest : shorter);
      const int32_t x = random.between(0, width - size);
      const int32_t y = random.between(0, height - size);
      const FaceRect face = {x, y, x + size, y + size};
      ASSERT_TRUE(std::ranges::any_of(plan.windows, [&](const Window& window) {
        return shows(window, face);
      })) << testing::PrintToString(face);
    }
    const int32_t most = random.between(1, 50);
    const auto fewer = planWindows(width, height, {.smallestFace = smallest, .mostWindows = most});
    EXPECT_LE(fewer.windows.size(), std::max<size_t>(static_cast<size_t>(most), 1));
  }
}

// 640x360: the whole frame, then two squares that share the columns 280 to 360.
const std::vector<Window> windows = {{0, 0, 640, 360}, {0, 0, 360, 360}, {280, 0, 360, 360}};

TEST(SameFaces, TellsOneFaceFromTwo) {
  const struct {
    const char* what;
    Sighting first, second;
    bool areSame;
  } cases[] = {
      {"two opinions on one face", {{100, 100, 160, 160}, 0}, {{110, 95, 172, 160}, 1}, true},
      {"side by side", {{100, 100, 160, 160}, 0}, {{150, 100, 210, 160}, 1}, false},
      {"side by side, one half hidden", {{60, 100, 120, 160}, 0}, {{100, 100, 140, 160}, 1}, false},
      {"one inside the other", {{100, 100, 200, 200}, 0}, {{100, 100, 152, 152}, 1}, true},
      {"one in front", {{100, 100, 200, 200}, 0}, {{100, 160, 140, 200}, 1}, false},
      {"a small one in the middle", {{100, 100, 200, 200}, 0}, {{132, 130, 172, 170}, 1}, true},
      {"a part that an edge cuts off", {{330, 100, 400, 190}, 2}, {{330, 110, 360, 180}, 1}, true},
      {"the same part, but whole", {{330, 100, 400, 190}, 2}, {{300, 110, 335, 180}, 1}, false},
  };
  for (const auto& [what, first, second, areSame] : cases) {
    const std::vector<Sighting> both = {first, second};
    const std::vector<Sighting> reversed = {second, first};
    EXPECT_EQ(sameFaces(both, windows, 640, 360).size(), areSame ? 1U : 2U) << what;
    EXPECT_EQ(sameFaces(reversed, windows, 640, 360).size(), areSame ? 1U : 2U) << what;
  }
}

TEST(SameFaces, TakesTheWindowThatShowsAFaceBest) {
  const struct {
    const char* what;
    std::vector<Sighting> sightings;
    size_t best;
  } cases[] = {
      {"16 pixels of 192, or 28", {{{100, 100, 154, 160}, 0}, {{100, 100, 154, 160}, 1}}, 1},
      {"the edge cuts it off", {{{320, 100, 380, 160}, 0}, {{320, 100, 358, 160}, 1}}, 0},
      {"close to an edge", {{{294, 100, 354, 160}, 1}, {{294, 100, 354, 160}, 0}}, 1},
      {"the frame's edge cuts it off", {{{0, 100, 60, 160}, 0}, {{-2, 100, 60, 160}, 1}}, 1},
      {"the whole frame shows a large one", {{{0, 0, 300, 300}, 1}, {{0, 0, 320, 300}, 0}}, 1},
      {"its last one, if hardly worse",
       {{{200, 100, 280, 180}, 0, 0}, {{200, 100, 280, 180}, 1}},
       0},
      {"not if that cuts it off", {{{300, 100, 359, 160}, 1, 0}, {{300, 100, 370, 160}, 2}}, 1},
  };
  for (const auto& [what, sightings, best] : cases) {
    const auto groups = sameFaces(sightings, windows, 640, 360);
    ASSERT_EQ(groups.size(), 1U) << what;
    EXPECT_EQ(groups[0].front(), best) << what;
  }
}

/// A face of 60 pixels that wanders to the right, and what two squares say about it: the second
/// takes it to be half as large again and further down. A square reports it while most of it shows.
std::vector<Sighting> opinionsOn(int32_t left) {
  std::vector<Sighting> opinions;
  if (left + 45 < 360)
    opinions.push_back({.face = {left, 100, std::min(left + 60, 362), 160}, .window = 1});
  if (left + 15 > 280)
    opinions.push_back({.face = {std::max(left, 278), 108, left + 68, 200}, .window = 2});
  return opinions;
}

TEST(FaceMerger, SlidesFromOneOpinionToTheOther) {
  FaceMerger merger(windows, 640, 360);
  FaceRect last = merger.update(opinionsOn(196)).front();
  for (int32_t left = 200; left < 420; left += 4) {
    SCOPED_TRACE(left);
    const auto faces = merger.update(opinionsOn(left));
    ASSERT_EQ(faces.size(), 1U);
    for (const auto& [now, before, step] : {std::tuple{faces[0].left, last.left, 4},
                                            {faces[0].right, last.right, 4},
                                            {faces[0].top, last.top, 0},
                                            {faces[0].bottom, last.bottom, 0}})
      EXPECT_LE(std::abs(now - before - step), 6);  // a tenth of the face
    last = faces[0];
  }
  EXPECT_EQ(last, (FaceRect{416, 108, 484, 200}));
}

TEST(FaceMerger, KeepsAFaceAndItsWindow) {
  FaceMerger merger(windows, 640, 360);
  const FaceRect face = {250, 100, 286, 136};
  const std::vector<Sighting> whole = {{.face = face, .window = 0}};
  ASSERT_EQ(merger.update(whole).front(), face);
  // The first square shows it better, but not by much; another face comes.
  const FaceRect other = {500, 100, 560, 160};
  const std::vector<Sighting> three = {{.face = other, .window = 2},
                                       {.face = {246, 97, 282, 133}, .window = 1},
                                       {.face = face, .window = 0}};
  EXPECT_TRUE(std::ranges::equal(merger.update(three), std::vector{face, other}));
  // Its window loses it: the other one's opinion takes over where the rectangle was, and stays.
  const std::vector<Sighting> square = {three[0], three[1]};
  FaceRect shown = merger.update(square).front();
  EXPECT_NEAR(shown.left, face.left, 1);
  for (int32_t frame = 0; frame < 12; ++frame)
    shown = merger.update(frame % 2 == 0 ? three : square).front();
  EXPECT_EQ(shown, three[1].face);
  EXPECT_TRUE(merger.update({}).empty());
}

}  // namespace
}  // namespace tavro::host
