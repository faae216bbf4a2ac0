// Which code runs on the processor that TAVRO_TEST_PROCESSOR asks for, by results that only that
// code gives: a fused multiply-add keeps the product's last bits, and the conversion instruction
// rounds where plain code truncates. The program is run once for each value (CMakeLists.txt). On a
// processor without AVX, real or emulated, it also makes sure that an AVX instruction would be
// noticed.

#include <cpuid.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "engine/number_conversion.h"
#include "tests/kernels/small_net.h"

namespace TavroRTC::FDModule {
namespace {

using tavro::test::SmallNet;

// Not every compiler's __builtin_cpu_supports knows it.
bool hasF16c() {
  uint32_t eax = 0, ebx = 0, ecx = 0, edx = 0;
  return __get_cpuid(1, &eax, &ebx, &ecx, &edx) != 0 && (ecx & bit_F16C) != 0;
}

struct Expected {
  bool fused = __builtin_cpu_supports("avx") && __builtin_cpu_supports("fma");
  bool rounded = hasF16c();
};

Expected expectedPath() {
  const char* path = std::getenv("TAVRO_TEST_PROCESSOR");
  const std::string name = path != nullptr ? path : "everything";
  Expected expected;
  expected.fused &= name == "everything" || name == "no-f16c";
  expected.rounded &= name == "everything" || name == "no-avx-fma";
  return expected;
}

// (1 + 2^-12)^2 - (1 + 2^-11) is 2^-24, or nothing if the product is rounded first.
constexpr float factor = 1 + 0x1p-12F;
constexpr float roundedSquare = 1 + 0x1p-11F;

float computeWith(const char* type, int32_t kernel, int32_t group) {
  constexpr int32_t channels = 16;
  const auto taps = static_cast<size_t>(kernel * kernel);
  const size_t inputs = group == 1 ? 1 : channels;
  SmallNet small;
  // One tap or channel alone isn't 0, so that there is one product.
  std::vector<float> weights(channels * taps, 0.0F);
  for (size_t i = taps / 2; i < weights.size(); i += taps)
    weights[i] = factor;
  const tavro::test::Extents image = {1, 8, 8, static_cast<int32_t>(inputs)};
  small.addInput("x", image, std::vector<float>(image.count(), factor));
  small.addConstant("weight", {channels, kernel, kernel, 1}, weights);
  small.addConstant("bias", {1, 1, 1, channels}, std::vector<float>(channels, -roundedSquare));
  const int32_t padding = kernel / 2;
  small.addLayer({.type = type,
                  .io = {"x", "y"},
                  .ints = {kernel, kernel, padding, padding, padding, padding, 1, 1, 1, 1, group},
                  .weights = {"weight", "bias"}});
  EXPECT_TRUE(small.compute());
  const std::vector<float> values = small.values("y");
  EXPECT_EQ(std::vector<float>(values.size(), values[0]), values);
  return values[0];
}

TEST(DispatchPath, convolutionsFuseIfTheProcessorMay) {
  const float expected = expectedPath().fused ? 0x1p-24F : 0.0F;
  EXPECT_EQ(computeWith("Conv", 1, 1), expected);
  EXPECT_EQ(computeWith("Conv", 3, 1), expected);
  EXPECT_EQ(computeWith("DepthwiseConv", 3, 16), expected);
}

TEST(DispatchPath, halfFloatsRoundIfTheProcessorMay) {
  const std::vector<float> values(8, 1 + 1.75F * 0x1p-10F);
  std::vector<uint16_t> halves(8);
  floatToHalf(values.data(), halves.data(), 8);
  EXPECT_EQ(halves, std::vector<uint16_t>(8, expectedPath().rounded ? 0x3C02 : 0x3C01));
}

#if defined(__linux__)
TEST(DispatchPath, processorWithoutAvxStopsAtIt) {
  if (__builtin_cpu_supports("avx"))
    GTEST_SKIP() << "it has AVX";
  EXPECT_EXIT(__asm__ volatile("vxorps %%ymm0, %%ymm0, %%ymm0" ::
                                   : "xmm0"),
              testing::KilledBySignal(SIGILL), "");
}
#endif

}  // namespace
}  // namespace TavroRTC::FDModule
