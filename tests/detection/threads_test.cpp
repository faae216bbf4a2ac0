// Eight instances on eight threads, which all begin at once, so that whatever is made on first use
// is made in a race. Each must find the rectangles that it finds alone. The program touches nothing
// of the module before the threads do, so the thread sanitizer notices any sharing.

#include <gtest/gtest.h>

#include <algorithm>
#include <latch>
#include <thread>
#include <vector>

#include "engine/cpu_info.h"
#include "host/core/face_rects.h"
#include "host/core/i420_frame.h"
#include "modules/face_detection/fd_wrapper.h"
#include "tests/support/captured_stdout.h"
#include "tests/support/frames.h"
#include "tests/support/portrait.h"

namespace {

using tavro::host::FaceRects;
using tavro::host::I420Frame;
using TavroRTC::FDModule::cpuInfo;
using TavroRTC::FDModule::FaceRect;
using TavroRTC::FDModule::FDWrapper;

constexpr size_t threadCount = 8;
constexpr int frameCount = 6;

/// The rectangles of all frames; none if a frame fails.
std::vector<FaceRect> live(const I420Frame& frame) {
  std::vector<FaceRect> rects;
  FaceRects faces;
  FDWrapper wrapper;
  bool isComplete = !cpuInfo().vendor.empty() && wrapper.init();
  for (int i = 0; i < frameCount; ++i) {
    isComplete = isComplete && wrapper.execute(&frame, faces.sequence());
    rects.insert(rects.end(), faces.view().begin(), faces.view().end());
  }
  return isComplete ? rects : std::vector<FaceRect>();
}

TEST(Threads, EightInstancesSideBySide) {
  std::vector<I420Frame> frames;
  const tavro::test::Portrait portrait;
  for (size_t i = 0; i < threadCount; ++i)  // another picture for each thread
    frames.push_back(portrait.frame(160, 120, static_cast<int32_t>(2 * i)));
  std::vector<std::vector<FaceRect>> found(threadCount), alone(threadCount);
  tavro::test::CapturedStdout quiet;
  {
    std::latch start(threadCount);
    std::vector<std::jthread> threads;
    for (size_t i = 0; i < threadCount; ++i)
      threads.emplace_back([&, i] {
        start.arrive_and_wait();
        found[i] = live(frames[i]);
      });
  }
  std::ranges::transform(frames, alone.begin(), live);
  quiet.stop();
  for (size_t i = 0; i < threadCount; ++i) {
    EXPECT_FALSE(alone[i].empty()) << "picture " << i;
    EXPECT_EQ(found[i], alone[i]) << "thread " << i;
  }
}

}  // namespace
