// A frame seen through several windows: with detectors that answer what they were given, and with
// the real one on a portrait that is small in its frame.

#include "host/core/frame_search.h"

#include <gtest/gtest.h>
#ifdef __GLIBC__
#include <unistd.h>
#endif

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "host/core/face_rects.h"
#include "host/core/i420_frame.h"
#include "tests/support/captured_stdout.h"
#include "tests/support/frames.h"
#include "tests/support/portrait.h"

namespace tavro::host {
namespace {

using TavroRTC::FDModule::FaceRect;
using Faces = std::vector<FaceRect>;

class FrameSearchTest : public testing::Test {
 protected:
  void TearDown() override {
    search_.reset();
    for (const ModuleInfo& module : modules())
      EXPECT_EQ(unloadModule(module.name).error, "");
  }

  static std::string load(const char* file) {
    std::string name;
    EXPECT_EQ(loadModule(file, &name).error, "");
    return name;
  }

  /// Begins another video.
  void open(const SearchModules& modules, const SearchOptions& options) {
    Status status;
    search_ = FrameSearch::open(modules, options, status);
    ASSERT_EQ(status.error, "");
  }

  Faces find(const I420Frame& frame, const std::string& error = "") {
    const Status status = search_->search(frame, faces_);
    if (error.empty())
      EXPECT_EQ(status.error, "");
    else
      EXPECT_NE(status.error.find(error), std::string::npos) << status.error;
    return {faces_.view().begin(), faces_.view().end()};
  }

  size_t windowsRun() const {
    return static_cast<size_t>(std::ranges::count(search_->windows(), true, &WindowReport::hasRun));
  }

  std::unique_ptr<FrameSearch> search_;
  FaceRects faces_;
};

void paint(I420Frame& frame, const FaceRect& face, uint8_t luma) {
  for (int32_t y = face.top; y < face.bottom; ++y)
    std::fill_n(frame.writablePlane(0) + ptrdiff_t{y} * frame.planeStride(0) + face.left,
                face.right - face.left, luma);
}

TEST_F(FrameSearchTest, HandsOverEachPlaneFromTheWindowsFirstSample) {
  const std::string module = load(FAKE_GOOD_FILE);  // which answers with the planes' checksums
  test::TracedRandom random;
  const I420Frame frame = test::randomFrame(random, 131, 97);
  const Window window = {36, 22, 95, 60};
  const int32_t stride = frame.planeStride(0), half = frame.planeStride(1);
  const auto cropped = I420Frame::borrow(95, 60, frame.planeData(0) + 22 * stride + 36, stride,
                                         frame.planeData(1) + 11 * half + 18,
                                         frame.planeData(2) + 11 * half + 18, half);
  open({.whole = module}, {});
  Faces expected = find(*cropped);
  ASSERT_EQ(expected.size(), 4U);
  for (FaceRect& face : expected) {
    const auto moved = [](int64_t value, int32_t by) {
      return static_cast<int32_t>(std::min<int64_t>(value + by, INT32_MAX));
    };
    face = {moved(face.left, window.x), moved(face.top, window.y), moved(face.right, window.x),
            moved(face.bottom, window.y)};
  }
  open({.whole = module}, {.windows = {.regions = {window}}});
  EXPECT_EQ(find(frame), expected);
  open({.whole = module}, {.windows = {.regions = {{131, 0, 9, 9}}}});
  EXPECT_EQ(find(frame, "no region lies in the frame"), Faces());
}

/// The host's frame without its last plane.
class PoorFrame final : public TavroRTC::FDModule::HostFrame {
 public:
  explicit PoorFrame(const I420Frame& frame) : frame_(frame) {}
  const uint8_t* planeData(int32_t plane) const override {
    return plane < 2 ? frame_.planeData(plane) : nullptr;
  }
  int32_t planeStride(int32_t plane) const override { return frame_.planeStride(plane); }
  int32_t width() const override { return frame_.width(); }
  int32_t height() const override { return frame_.height(); }

 private:
  const I420Frame& frame_;
};

TEST_F(FrameSearchTest, MakesNothingForAFrameThatLacksAPlane) {
  open({.whole = load(FAKE_PAINTED_FILE)}, {.windows = {.smallestFace = 24}});
  const I420Frame frame = test::plainFrame(640, 360, 16);
  EXPECT_EQ(search_->search(PoorFrame(frame), faces_).error,
            "the frame's planes don't suit its size");
  EXPECT_TRUE(search_->windows().empty());
}

#ifdef __GLIBC__
TEST_F(FrameSearchTest, LeavesTheStandardOutputToTheRestOfTheProgram) {
  const std::string module = load(FAKE_PAINTED_FILE);
  std::string expected;
  std::atomic<bool> isDone = false;
  test::CapturedStdout output;
  std::thread program([&] {
    for (int32_t i = 0; !isDone; ++i) {
      const std::string line = std::to_string(i) + "\n";
      expected += line;
      if (i % 2 == 0)
        std::fputs(line.c_str(), stdout);
      else if (std::fflush(stdout) != 0 || write(1, line.data(), line.size()) < 0)
        break;
    }
  });
  for (int32_t i = 0; i < 20; ++i) {
    open({.whole = module}, {.windows = {.smallestFace = 12}, .threads = 3});
    if (i % 2 == 0)
      flockfile(stdout);
    find(test::plainFrame(640, 362, 16));
    if (i % 2 == 0)
      funlockfile(stdout);
  }
  isDone = true;
  program.join();
  EXPECT_TRUE(output.stop() == expected);
}
#endif

TEST_F(FrameSearchTest, ReportsEachFaceOnceWhateverTheThreads) {
  const std::string module = load(FAKE_PAINTED_FILE);
  std::vector<std::vector<Faces>> answers;
  for (const int32_t threads : {1, 8}) {
    open({.whole = module}, {.windows = {.smallestFace = 12}, .threads = threads});
    test::Random random(test::baseSeed());
    std::vector<Faces>& found = answers.emplace_back();
    for (int32_t i = 0; i < 40; ++i) {
      // Two faces that wander over all windows; the frame's size changes once.
      I420Frame frame = test::plainFrame(i < 20 ? 640 : 400, 362, 16);
      const int32_t size = random.between(14, 50);
      const int32_t left = 8 * i + random.between(0, 9);
      const FaceRect one = {left, 80, left + size, 80 + size};
      const FaceRect other = {380 - left, 200, 380 - left + size, 200 + size};
      paint(frame, one, 200);
      if (i % 7 != 0)
        paint(frame, other, 230);
      found.push_back(find(frame));
      ASSERT_EQ(found.back().size(), i % 7 != 0 ? 2U : 1U) << i;
      for (const FaceRect& face : found.back())
        EXPECT_GT(std::max(overlap(face, one), overlap(face, other)), 0.3) << i;
    }
    EXPECT_GT(search_->windows().size(), 8U);
  }
  EXPECT_EQ(answers[0], answers[1]);
}

TEST_F(FrameSearchTest, WindowsWithoutAnInstanceLeaveTheOthersAtWork) {
  const SearchModules modules = {.whole = load(FAKE_PAINTED_FILE), .square = load(FAKE_POOR_FILE)};
  I420Frame frame = test::plainFrame(640, 360, 16);
  const FaceRect face = {100, 100, 160, 160};
  paint(frame, face, 200);
  open(modules, {.windows = {.smallestFace = 24}});
  for (int32_t i = 0; i < 2; ++i)
    EXPECT_EQ(find(frame, "window 360x360 at 0,0: module 'poor' had no memory"), Faces{face});
  EXPECT_EQ(windowsRun(), 1U);
  EXPECT_EQ(search_->windows()[1].error, "module 'poor' had no memory for an instance");

  Status status;
  EXPECT_EQ(FrameSearch::open({.whole = modules.square}, {}, status), nullptr);
  EXPECT_EQ(status.error, "module 'poor' had no memory for an instance");
  open({.whole = load(FAKE_REFUSING_FILE)}, {});
  EXPECT_EQ(find(frame, "the detector refused the frame"), Faces());
}

TEST_F(FrameSearchTest, ABudgetLetsWindowsTakeTurns) {
  I420Frame frame = test::plainFrame(640, 360, 16);
  open({.whole = load(FAKE_PAINTED_FILE)}, {.windows = {.smallestFace = 15}, .budget = 1e-9});
  std::vector<size_t> turns;
  find(frame);
  const size_t count = search_->windows().size();
  for (size_t i = 0; i < 2 * (count - 1); ++i, find(frame)) {
    EXPECT_EQ(windowsRun(), 2U);
    EXPECT_TRUE(search_->windows()[0].hasRun);
    for (size_t window = 1; window < count; ++window)
      if (search_->windows()[window].hasRun)
        turns.push_back(window);
  }
  std::ranges::sort(turns);
  for (size_t i = 0; i < turns.size(); ++i)
    EXPECT_EQ(turns[i], 1 + i / 2);  // each window twice

  // Now all windows that see the face run in every frame, and one of the others.
  paint(frame, {20, 20, 60, 60}, 200);
  for (size_t i = 0; i < count; ++i)
    EXPECT_EQ(find(frame).size(), 1U);
  EXPECT_TRUE(search_->windows()[1].hasRun && search_->windows()[3].hasRun);
  EXPECT_EQ(windowsRun(), 4U);
}

/// A gray frame with the portrait in it, `width` pixels wide.
I420Frame frameWithPortrait(const test::Portrait& portrait, int32_t width, int32_t left) {
  const int32_t height = width * 3 / 4;
  I420Frame frame = test::plainFrame(640, 360, 110);
  for (int32_t plane = 0; plane < planeCount; ++plane) {
    const auto extent = [plane](int32_t size) { return planeExtent(plane, size); };
    for (int32_t y = 0; y < extent(height); ++y)
      for (int32_t x = 0; x < extent(width); ++x)
        frame.writablePlane(
            plane)[(y + extent(100)) * frame.planeStride(plane) + x + extent(left)] =
            portrait.at(plane, x, y, extent(width), extent(height));
  }
  return frame;
}

TEST_F(FrameSearchTest, AFaceThatCrossesWindowsIsNeverLostAndNeverJumps) {
  const test::Portrait portrait;
  const std::string module = load(REAL_MODULE_FILE);
  open({.whole = module}, {});
  size_t foundInWhole = 0;
  for (int32_t left = 0; left <= 560; left += 40)
    foundInWhole += find(frameWithPortrait(portrait, 80, left)).size();
  EXPECT_LT(foundInWhole, 12U);  // of 15: it takes windows

  open({.whole = module}, {.windows = {.smallestFace = 24}});
  FaceRect last = find(frameWithPortrait(portrait, 80, 0)).at(0);
  for (int32_t left = 4; left <= 560; left += 4) {
    const Faces found = find(frameWithPortrait(portrait, 80, left));
    ASSERT_EQ(found.size(), 1U) << left;
    const FaceRect expected = {last.left + 4, last.top, last.right + 4, last.bottom};
    const double most = 0.1 * std::sqrt((last.right - last.left) * (last.bottom - last.top));
    for (const auto edge : {&FaceRect::left, &FaceRect::top, &FaceRect::right, &FaceRect::bottom})
      EXPECT_LE(std::abs(found[0].*edge - expected.*edge), most) << left;
    last = found[0];
  }
}

/// How far the edges of the one face move in all while it is at rest, in noisy frames.
int64_t unrest(const std::vector<Faces>& frames) {
  int64_t way = 0;
  for (size_t i = 1; i < frames.size(); ++i) {
    const FaceRect& before = frames[i - 1].at(0);
    const FaceRect& now = frames[i].at(0);
    way += std::abs(now.left - before.left) + std::abs(now.top - before.top) +
           std::abs(now.right - before.right) + std::abs(now.bottom - before.bottom);
  }
  return way;
}

TEST_F(FrameSearchTest, AStillFaceMovesNoMoreThanInTheWholeFrame) {
  const test::Portrait portrait;
  const std::string module = load(REAL_MODULE_FILE);
  std::vector<int64_t> ways;
  for (const int32_t smallestFace : {0, 20}) {
    open({.whole = module}, {.windows = {.smallestFace = smallestFace}});
    test::Random random(test::baseSeed());
    std::vector<Faces> found;
    for (int32_t i = 0; i < 40; ++i) {
      I420Frame frame = frameWithPortrait(portrait, 200, 100);
      uint8_t* luma = frame.writablePlane(0);
      std::transform(luma, luma + frame.width() * frame.height(), luma, [&](uint8_t sample) {
        return static_cast<uint8_t>(std::clamp(sample + random.between(-30, 30), 0, 255));
      });
      found.push_back(find(frame));
      ASSERT_EQ(found.back().size(), 1U);
    }
    ways.push_back(unrest(found));
  }
  EXPECT_GT(search_->windows().size(), 8U);
  EXPECT_LE(ways[1], ways[0]);
}

}  // namespace
}  // namespace tavro::host
