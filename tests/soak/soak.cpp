// Lets the module run for long, as a host does: it loads the file, gives frames of many sizes to
// one instance after another, and looks whether the process grows or slows down. The curve of both
// goes to the standard output.
//
//   soak MODULE [FRAMES]     one million frames by default: about an hour
//
// Resident memory must not rise any more after the first 10,000 frames, and the fastest frame of
// one fixed size must stay as fast.

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "host/core/face_rects.h"
#include "host/core/i420_frame.h"
#include "host/core/module_host.h"
#include "modules/face_detection/fd_wrapper.h"
#include "tests/support/captured_stdout.h"
#include "tests/support/portrait.h"
#include "tests/support/random.h"

namespace {

using tavro::host::FaceRects;
using tavro::host::I420Frame;
using TavroRTC::FDModule::FDWrapper;
using Clock = std::chrono::steady_clock;

constexpr int64_t sampleCount = 100;
constexpr int64_t settlingFrames = 10'000;  // or a tenth of all, if that is less
constexpr int64_t mostKilobytesMore = 256;
constexpr double mostTimeMore = 1.3;

struct Size {
  int32_t width, height;
};
// The first is the one whose time is watched.
constexpr Size sizes[] = {{192, 192},  {160, 120}, {640, 360}, {641, 361},  {320, 240}, {96, 96},
                          {1280, 720}, {1, 1},     {33, 700},  {720, 1280}, {384, 384}, {100, 100}};

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "soak: %s\n", what.c_str());
  std::exit(1);
}

int64_t residentKilobytes() {
  std::ifstream statm("/proc/self/statm");
  int64_t all = 0, resident = 0;
  statm >> all >> resident;
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

class Instance {
 public:
  explicit Instance(const std::string& module) {
    tavro::test::CapturedStdout quiet;
    if (!tavro::host::createInstance(module, &wrapper_).ok() || !wrapper_->init())
      fail("no instance");
  }
  ~Instance() {
    if (!tavro::host::destroyInstance(wrapper_).ok())
      fail("the instance can't be destroyed");
  }
  Instance(const Instance&) = delete;
  Instance& operator=(const Instance&) = delete;

  size_t run(const I420Frame& frame) {
    if (!wrapper_->execute(&frame, faces_.sequence()))
      fail("a frame failed");
    return faces_.view().size();
  }

 private:
  FDWrapper* wrapper_ = nullptr;
  FaceRects faces_;
};

struct Sample {
  int64_t frames;
  int64_t kilobytes;
  double fastestMs;
};

}  // namespace

int main(int argc, char** argv) {
  const int64_t frameCount = argc > 2 ? std::atoll(argv[2]) : 1'000'000;
  if (argc < 2 || frameCount < sampleCount)
    fail("usage: soak MODULE [FRAMES]");
  const tavro::test::Portrait portrait;
  std::vector<I420Frame> frames;
  for (const Size& size : sizes)
    frames.push_back(portrait.frame(size.width, size.height));

  const int64_t sampleFrames = frameCount / sampleCount;
  const int64_t lifeFrames = std::min<int64_t>(1000, sampleFrames);
  tavro::test::Random random(tavro::test::baseSeed());
  std::vector<Sample> samples;
  size_t faceCount = 0;
  std::string module;
  std::printf("%10s %12s %22s\n", "frames", "resident kB", "fastest 192x192 ms");
  for (int64_t done = 0; done < frameCount;) {
    if (!tavro::host::loadModule(argv[1], &module).ok())
      fail("the module can't be loaded");
    double fastestMs = 1e9;
    for (const int64_t end = std::min(done + sampleFrames, frameCount); done < end;) {
      Instance instance(module);
      {
        // The first frame's report of its warm-up.
        tavro::test::CapturedStdout quiet;
        faceCount += instance.run(frames[0]);
      }
      for (int64_t i = 1; i < lifeFrames; ++i) {
        const auto which = static_cast<size_t>(random.between(0, std::size(sizes) - 1));
        const auto start = Clock::now();
        faceCount += instance.run(frames[which]);
        if (which == 0)
          fastestMs = std::min(
              fastestMs, std::chrono::duration<double, std::milli>(Clock::now() - start).count());
      }
      done += lifeFrames;
    }
    if (!tavro::host::unloadModule(module).ok())
      fail("the module can't be unloaded");
    samples.push_back({done, residentKilobytes(), fastestMs});
    std::printf("%10lld %12lld %22.3f\n", static_cast<long long>(done),
                static_cast<long long>(samples.back().kilobytes), fastestMs);
    std::fflush(stdout);
  }

  const int64_t settling = std::clamp<int64_t>(settlingFrames / sampleFrames, 1, sampleCount / 10);
  const Sample& settled = samples[static_cast<size_t>(settling - 1)];
  int64_t most = settled.kilobytes;
  for (const Sample& sample : samples)
    if (sample.frames > settled.frames)
      most = std::max(most, sample.kilobytes);
  const auto fastest = [&](size_t first, size_t count) {
    double ms = 1e9;
    for (size_t i = first; i < first + count; ++i)
      ms = std::min(ms, samples[i].fastestMs);
    return ms;
  };
  const size_t part = samples.size() / 5;
  const double before = fastest(0, part);
  const double after = fastest(samples.size() - part, part);
  std::printf(
      "%zu faces; resident memory rose by %lld kB at most after %lld frames; fastest frame "
      "%.3f ms in the first fifth, %.3f in the last\n",
      faceCount, static_cast<long long>(most - settled.kilobytes),
      static_cast<long long>(settled.frames), before, after);
  if (faceCount == 0)
    fail("there was nothing to follow");
  if (most - settled.kilobytes > mostKilobytesMore)
    fail("memory grows");
  if (after > before * mostTimeMore)
    fail("frames take longer and longer");
}
