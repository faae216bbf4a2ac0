// The test of the sweep over images: operations that are broken on purpose, each of which it must
// catch for the right reason.

#include "tests/image/image_sweep.h"

#include <gtest/gtest.h>

#include <vector>

#include "image/plane_scaler.h"
#include "image/row_kernels.h"

namespace TavroRTC::FDModule {
namespace {

using namespace tavro::test;

int32_t runSound(const TestPlane& src, TestPlane& dst, int32_t srcStride = 0,
                 ScaleFilter filter = ScaleFilter::Bilinear) {
  return scalePlane(src.bytes.data(), srcStride != 0 ? srcStride : src.stride, src.width,
                    src.height, dst.bytes.data(), dst.stride, dst.width, dst.height, filter)
             ? 0
             : -1;
}

volatile uint8_t sink;

struct Broken {
  const char* what;
  int32_t (*run)(TestPlane& src, TestPlane& dst);
  const char* caughtBy;  // a part of the failure's text; null: the program is stopped
};

const Broken brokenOperations[] = {
    {"writes in front of the plane",
     [](TestPlane& src, TestPlane& dst) {
       dst.bytes.data()[-1] = 0;
       return runSound(src, dst);
     },
     "wrote outside the plane"},
    {"writes between the rows",
     [](TestPlane& src, TestPlane& dst) {
       const int32_t status = runSound(src, dst);
       if (dst.stride > dst.width && dst.height > 1)
         dst.bytes[static_cast<size_t>(dst.stride) - 1] = 0;
       return status;
     },
     "(gap)"},
    {"skips the last column of an odd width",
     [](TestPlane& src, TestPlane& dst) {
       const auto last = static_cast<size_t>(dst.width) - 1;
       const uint8_t before = dst.bytes[last];
       const int32_t status = runSound(src, dst);
       if (dst.width % 2 == 1)
         dst.bytes[last] = before;
       return status;
     },
     "instead of"},
    {"takes the width for the stride",
     [](TestPlane& src, TestPlane& dst) { return runSound(src, dst, src.width); }, "instead of"},
    {"filters the columns alone",
     [](TestPlane& src, TestPlane& dst) { return runSound(src, dst, 0, ScaleFilter::Linear); },
     "instead of"},
    {"is off by one for white",
     [](TestPlane& src, TestPlane& dst) {
       const int32_t status = runSound(src, dst);
       for (int32_t x = 0; x < dst.width; ++x) {
         uint8_t& sample = dst.bytes[static_cast<size_t>(x)];
         sample = sample == 255 ? uint8_t{254} : sample;
       }
       return status;
     },
     "instead of 255"},
    {"takes blocks where the plain form is asked for",
     [](TestPlane& src, TestPlane& dst) {
       setPlainRowsOnly(0);
       return runSound(src, dst);
     },
     "plain true"},
    {"changes its source",
     [](TestPlane& src, TestPlane& dst) {
       const int32_t status = runSound(src, dst);
       src.bytes[0] ^= 1U;
       return status;
     },
     "changed its source"},
    {"refuses a single column",
     [](TestPlane& src, TestPlane& dst) { return dst.width == 1 ? -1 : runSound(src, dst); },
     "refused"},
    {"reads in front of its source",
     [](TestPlane& src, TestPlane& dst) {
       sink = src.bytes.data()[-1];
       return runSound(src, dst);
     },
     nullptr},
    {"reads behind its source",
     [](TestPlane& src, TestPlane& dst) {
       sink = *src.bytes.end();
       return runSound(src, dst);
     },
     nullptr},
    {"writes behind the plane",
     [](TestPlane& src, TestPlane& dst) {
       *dst.bytes.end() = 0;
       return runSound(src, dst);
     },
     nullptr},
};

testing::AssertionResult sweepBroken(const Broken& broken) {
  return sweep(200, [&broken](Random& random, int32_t) {
    const auto size = [&random] { return Size{random.between(1, 40), random.between(1, 9)}; };
    const Size from = size(), to = size();
    return checkImage(
        {.src = {from},
         .dst = {to},
         .run = [&broken](Planes& src, Planes& dst) { return broken.run(src[0], dst[0]); },
         .expected =
             [to](const Planes& src, bool plainOnly) {
               return std::vector<Bytes>{
                   scaledPlane(PlaneView(src[0]), to.width, to.height, 2, plainOnly)};
             }},
        random);
  });
}

TEST(ImageSweepItself, catchesBrokenOperations) {
  for (const Broken& broken : brokenOperations)
    expectCaught(broken.what, broken.caughtBy, [&broken] { return sweepBroken(broken); });
}

}  // namespace
}  // namespace TavroRTC::FDModule
