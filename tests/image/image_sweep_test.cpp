// The test of the sweep over images: operations that are broken on purpose, each of which it must
// catch for the right reason.

#include "tests/image/image_sweep.h"

#include <gtest/gtest.h>

#include <span>
#include <vector>

#include "image/plane_scaler.h"
#include "image/row_kernels.h"

namespace TavroRTC::FDModule {
namespace {

using namespace tavro::test;

int32_t scale(const TestPlane& src, int32_t srcStride, TestPlane& dst, ScaleFilter filter) {
  const bool done = scalePlane(src.bytes.data(), srcStride, src.width, src.height, dst.bytes.data(),
                               dst.stride, dst.width, dst.height, filter);
  return done ? 0 : -1;
}

using Run = int32_t(TestPlane& src, TestPlane& dst);
constexpr Run* sound = [](TestPlane& src, TestPlane& dst) {
  return scale(src, src.stride, dst, ScaleFilter::Bilinear);
};

volatile uint8_t sink;

constexpr const char* stops = nullptr;  // the whole program does

// An operation that isn't the sound one, or does something more.
struct Broken {
  const char* what;
  const char* caughtBy;  // a part of the failure's text
  Run* run = sound;
  void (*spoil)(TestPlane& src, TestPlane& dst) = [](TestPlane&, TestPlane&) {};
};

const Broken brokenOperations[] = {
    {"takes the width for the stride", "instead of",
     [](TestPlane& src, TestPlane& dst) {
       return scale(src, src.width, dst, ScaleFilter::Bilinear);
     }},
    {"filters the columns alone", "instead of",
     [](TestPlane& src, TestPlane& dst) {
       return scale(src, src.stride, dst, ScaleFilter::Linear);
     }},
    {"takes blocks where the plain form is asked for", "plain true",
     [](TestPlane& src, TestPlane& dst) {
       setPlainRowsOnly(0);
       return sound(src, dst);
     }},
    {"refuses a single column", "refused",
     [](TestPlane& src, TestPlane& dst) { return dst.width == 1 ? -1 : sound(src, dst); }},
    {"skips the last column of an odd width", "instead of", sound,
     [](TestPlane&, TestPlane& dst) {
       if (dst.width % 2 == 1)
         dst.bytes[static_cast<size_t>(dst.width) - 1] = GuardedBuffer<uint8_t>::poison;
     }},
    {"is off by one for white", "instead of 255", sound,
     [](TestPlane&, TestPlane& dst) {
       for (uint8_t& sample : std::span(dst.bytes.data(), static_cast<size_t>(dst.width)))
         sample = sample == 255 ? uint8_t{254} : sample;
     }},
    {"writes between the rows", "(gap)", sound,
     [](TestPlane&, TestPlane& dst) {
       if (dst.stride > dst.width && dst.height > 1)
         dst.bytes[static_cast<size_t>(dst.stride) - 1] = 0;
     }},
    {"changes its source", "changed its source", sound,
     [](TestPlane& src, TestPlane&) { src.bytes[0] ^= 1U; }},
    {"writes in front of the plane", "wrote outside the plane", sound,
     [](TestPlane&, TestPlane& dst) { dst.bytes.data()[-1] = 0; }},
    {"reads in front of its source", stops, sound,
     [](TestPlane& src, TestPlane&) { sink = src.bytes.data()[-1]; }},
    {"reads behind its source", stops, sound,
     [](TestPlane& src, TestPlane&) { sink = *src.bytes.end(); }},
    {"writes behind the plane", stops, sound,
     [](TestPlane&, TestPlane& dst) { *dst.bytes.end() = 0; }},
};

testing::AssertionResult sweepBroken(const Broken& broken) {
  return sweep(200, [&broken](Random& random, int32_t) {
    const auto size = [&random] { return Size{random.between(1, 40), random.between(1, 9)}; };
    const Size from = size(), to = size();
    return checkImage({.src = {from},
                       .dst = {to},
                       .run =
                           [&broken](Planes& src, Planes& dst) {
                             const int32_t status = broken.run(src[0], dst[0]);
                             broken.spoil(src[0], dst[0]);
                             return status;
                           },
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
