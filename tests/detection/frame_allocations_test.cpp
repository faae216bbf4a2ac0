// What a frame takes from the heap once an instance is warm: the scratch rows of the scaler and of
// the convolutions, and with faces the lists of boxes. All of it is given back within the frame, so
// that an instance never grows.

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <new>
#include <string>

#include "engine/cpu_info.h"
#include "host/core/face_rects.h"
#include "host/core/i420_frame.h"
#include "modules/face_detection/fd_wrapper.h"
#include "tests/support/aligned_block.h"
#include "tests/support/captured_stdout.h"

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names for the two ends of a wrap
extern "C" void* __real_malloc(size_t size);
extern "C" void __real_free(void* block);
extern "C" void* __wrap_malloc(size_t size);
extern "C" void __wrap_free(void* block);

namespace {

struct Traffic {
  int64_t taken = 0;
  int64_t returned = 0;
};
Traffic heap;  // of the one thread: a thread's own variable may itself come from the heap

}  // namespace

void* __wrap_malloc(size_t size) {
  ++heap.taken;
  return __real_malloc(size);
}
void __wrap_free(void* block) {
  heap.returned += block != nullptr ? 1 : 0;
  __real_free(block);
}
// NOLINTEND(bugprone-reserved-identifier)

void* operator new(size_t size) {
  if (void* block = std::malloc(size != 0 ? size : 1))
    return block;
  throw std::bad_alloc();
}
void* operator new(size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
  ++heap.taken;
  return tavro::test::alignedBlock(size, alignment);
}
void operator delete(void* block) noexcept {
  std::free(block);
}
void operator delete(void* block, size_t) noexcept {
  std::free(block);
}
void operator delete(void* block, std::align_val_t) noexcept {
  const int64_t before = heap.returned;
  tavro::test::freeAlignedBlock(block);
  heap.returned = before + (block != nullptr ? 1 : 0);  // once, whatever function took it back
}

namespace {

using tavro::host::FaceRects;
using tavro::host::I420Frame;
using tavro::test::CapturedStdout;
using TavroRTC::FDModule::CpuInfo;
using TavroRTC::FDModule::cpuInfo;
using TavroRTC::FDModule::FDWrapper;
using TavroRTC::FDModule::overrideCpuInfo;

/// An instance that has seen three frames of one picture.
class WarmInstance {
 public:
  explicit WarmInstance(const I420Frame& frame) : frame_(frame) {
    CapturedStdout quiet;
    EXPECT_TRUE(faces.sequence()->grow(faces.sequence(), 16));
    EXPECT_TRUE(wrapper_.init());
    for (int i = 0; i < 3; ++i)
      run();
  }

  Traffic run() {
    heap = {};
    EXPECT_TRUE(wrapper_.execute(&frame_, faces.sequence()));
    return heap;
  }

  FaceRects faces;

 private:
  const I420Frame& frame_;
  FDWrapper wrapper_;
};

TEST(FrameAllocations, AFrameWithoutFacesTakesScratchRowsOnly) {
  // The scaler takes a row for each plane if it filters columns, and none otherwise.
  const struct {
    int32_t width, height, scalerRows;
  } sizes[] = {{1280, 720, 3}, {100, 100, 3}, {384, 384, 0}, {192, 192, 0}, {192, 720, 0}};
  // The first convolution takes one block; the 128-bit kernels two, and one for each of seven more.
  CpuInfo narrow = cpuInfo();
  narrow.leaf1Ecx &= ~CpuInfo::avxAndFma;
  const struct {
    const CpuInfo* processor;
    int32_t convolutions;
  } paths[] = {{nullptr, cpuInfo().hasAvxAndFma() ? 1 : 9}, {&narrow, 9}};
  for (const auto& path : paths)
    for (const auto& size : sizes) {
      SCOPED_TRACE(std::to_string(size.width) + "x" + std::to_string(size.height) +
                   (path.processor != nullptr ? " without AVX and FMA" : ""));
      const auto frame = I420Frame::allocate(size.width, size.height);
      ASSERT_TRUE(frame.has_value());
      overrideCpuInfo(path.processor);
      const Traffic traffic = WarmInstance(*frame).run();
      overrideCpuInfo(nullptr);
      EXPECT_GT(traffic.taken, 0) << "nothing is counted";
      EXPECT_LE(traffic.taken, size.scalerRows + path.convolutions);
      EXPECT_EQ(traffic.taken, traffic.returned);
    }
}

TEST(FrameAllocations, FacesLeaveNothingBehind) {
  auto frame = I420Frame::allocate(160, 120);
  ASSERT_TRUE(frame.has_value());
  std::ifstream file(TAVRO_PORTRAIT_PATH, std::ios::binary);
  file.read(reinterpret_cast<char*>(frame->writablePlane(0)), std::streamsize{160} * 120 * 3 / 2);
  ASSERT_TRUE(file.good());
  WarmInstance instance(*frame);
  for (int i = 0; i < 5; ++i) {
    const Traffic traffic = instance.run();
    ASSERT_FALSE(instance.faces.empty());
    EXPECT_EQ(traffic.taken, traffic.returned);
    EXPECT_LE(traffic.taken, 16);
  }
}

}  // namespace
