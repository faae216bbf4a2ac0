// A fixed sequence of frames has one answer: the bytes that the network sees are the same wherever
// the module runs, and the rectangles are the same for every compiler, every build and every
// machine that takes one path. Their digests are in tests/data.
//
// New weights change the rectangles and nothing else. This renews their digests, and theirs alone:
//
//   TAVRO_RENEW_DIGESTS=1 build/gcc/tests/end_to_end/digest_test

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "host/core/face_rects.h"
#include "impl_x86/twins.h"
#include "modules/face_detection/fd_wrapper.h"
#include "modules/face_detection/network_input.h"
#include "tests/support/captured_stdout.h"
#include "tests/support/frames.h"
#include "tests/support/portrait.h"
#include "tests/support/processor.h"

namespace {

using tavro::host::FaceRects;
using tavro::host::I420Frame;
using namespace tavro::test;
using namespace TavroRTC::FDModule;

/// FNV-1a in 64 bits.
template <typename T>
std::string digestOf(const std::vector<T>& values) {
  uint64_t hash = 0xCBF29CE484222325U;
  for (const std::byte byte : std::as_bytes(std::span(values)))
    hash = (hash ^ std::to_integer<uint8_t>(byte)) * 0x100000001B3U;
  char digits[17];
  std::snprintf(digits, sizeof(digits), "%016llx", static_cast<unsigned long long>(hash));
  return digits;
}

/// A moving portrait that changes its size, and noise on every third frame.
std::vector<I420Frame> makeSequence() {
  constexpr int32_t sizes[][2] = {{640, 360},  {641, 361}, {192, 192}, {100, 75},
                                  {1280, 720}, {384, 384}, {333, 500}, {96, 96},
                                  {1, 1},      {16, 2048}, {720, 96},  {1279, 719}};
  const Portrait portrait;
  std::vector<I420Frame> frames;
  uint32_t noise = 1;
  for (int32_t i = 0; i < 48; ++i) {
    const auto [width, height] = sizes[i / 4];
    frames.push_back(portrait.frame(width, height, i % 4 * (1 + width / 80)));
    if (i % 3 != 2)
      continue;
    I420Frame& frame = frames.back();
    for (int32_t plane = 0; plane < 3; ++plane) {
      uint8_t* samples = frame.writablePlane(plane);
      for (int32_t k = 0; k < frame.planeWidth(plane) * frame.planeHeight(plane); ++k) {
        noise = noise * 1664525U + 1013904223U;
        samples[k] = static_cast<uint8_t>(samples[k] + (noise >> 24) / 32);
      }
    }
  }
  return frames;
}

/// Expects the digest of that name in a file of lines "digest name", or puts it there.
void expectDigest(const std::string& name, const std::string& digest, bool isRenewed = false) {
  const char* path = TAVRO_DATA_PATH "/frames.digest";
  std::map<std::string, std::string> digests;
  std::ifstream file(path);
  for (std::string text, each; file >> text >> each;)
    digests[each] = text;
  if (isRenewed) {
    digests[name] = digest;
    std::ofstream renewed(path);
    for (const auto& [each, text] : digests)
      renewed << text << "  " << each << '\n';
  }
  EXPECT_EQ(digests[name], digest) << name << " in " << path;
}

TEST(Digests, NetworkInput) {
  std::vector<uint8_t> planar(planarInputSize), packed(packedInputSize), all;
  for (const I420Frame& frame : makeSequence()) {
    ASSERT_TRUE(prepareNetworkInput(viewOf(frame), planar.data(), packed.data()));
    all.insert(all.end(), packed.begin(), packed.end());
  }
  expectDigest("network-input", digestOf(all));
}

TEST(Digests, Rectangles) {
  const bool isRenewed = std::getenv("TAVRO_RENEW_DIGESTS") != nullptr;
  const std::vector<I420Frame> frames = makeSequence();
  for (const int32_t twinBits : {512, 256, 0})  // twins change nothing but time
    for (const bool avxAndFma : availableProcessors()) {
      const Processor processor(avxAndFma);
      x86::limitTwins(twinBits);
      CapturedStdout quiet;
      FDWrapper wrapper;
      ASSERT_TRUE(wrapper.init());
      FaceRects faces;
      std::vector<int32_t> all;
      size_t count = 0;
      for (const I420Frame& frame : frames) {
        ASSERT_TRUE(wrapper.execute(&frame, faces.sequence()));
        for (const FaceRect& rect : faces.view())
          all.insert(all.end(), {rect.left, rect.top, rect.right, rect.bottom});
        all.push_back(static_cast<int32_t>(faces.view().size()));
        count += faces.view().size();
      }
      quiet.stop();
      EXPECT_GT(count, frames.size() / 4) << "next to nothing was found";
      expectDigest(avxAndFma ? "avx-and-fma" : "128-bit", digestOf(all), isRenewed);
    }
  x86::limitTwins(512);
}

}  // namespace
