// Eight instances on eight threads, which all begin at once, so that whatever is made on first use
// is made in a race: each must get the rectangles that an instance by itself gets. The program
// touches nothing of the module before the threads do; under the thread sanitizer it finds any
// sharing.

#include <gtest/gtest.h>

#include <latch>
#include <thread>
#include <vector>

#include "engine/cpu_info.h"
#include "host/core/face_rects.h"
#include "host/core/i420_frame.h"
#include "modules/face_detection/fd_wrapper.h"
#include "tests/support/captured_stdout.h"
#include "tests/support/portrait.h"
#include "tests/support/print_face_rect.h"

namespace {

using tavro::host::FaceRects;
using tavro::host::I420Frame;
using TavroRTC::FDModule::cpuInfo;
using TavroRTC::FDModule::FaceRect;
using TavroRTC::FDModule::FDWrapper;

constexpr size_t threadCount = 8;
constexpr int frameCount = 6;

struct Life {
  bool isComplete = false;
  std::vector<FaceRect> rects;  ///< of all frames
};

Life live(const I420Frame& frame) {
  Life life;
  FaceRects faces;
  FDWrapper wrapper;
  life.isComplete = wrapper.init();
  for (int i = 0; i < frameCount; ++i) {
    life.isComplete &= wrapper.execute(&frame, faces.sequence());
    life.rects.insert(life.rects.end(), faces.view().begin(), faces.view().end());
  }
  return life;
}

TEST(Threads, EightInstancesSideBySide) {
  std::vector<I420Frame> frames;
  const tavro::test::Portrait portrait;
  for (size_t i = 0; i < threadCount; ++i)  // another picture for each thread
    frames.push_back(portrait.frame(160, 120, static_cast<int32_t>(2 * i)));
  std::vector<Life> lives(threadCount);
  tavro::test::CapturedStdout quiet;
  {
    std::latch start(threadCount);
    std::vector<std::jthread> threads;
    for (size_t i = 0; i < threadCount; ++i)
      threads.emplace_back([&, i] {
        start.arrive_and_wait();
        const bool hasVendor = !cpuInfo().vendor.empty();
        lives[i] = live(frames[i]);
        lives[i].isComplete &= hasVendor;
      });
  }
  std::vector<Life> alone;
  for (const I420Frame& frame : frames)
    alone.push_back(live(frame));
  quiet.stop();
  size_t faceCount = 0;
  for (size_t i = 0; i < threadCount; ++i) {
    EXPECT_TRUE(lives[i].isComplete) << "thread " << i;
    EXPECT_EQ(lives[i].rects, alone[i].rects) << "thread " << i;
    faceCount += alone[i].rects.size();
  }
  EXPECT_GT(faceCount, 0U);
}

}  // namespace
