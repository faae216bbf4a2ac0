#include "engine/number_conversion.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <numeric>
#include <vector>

#include "engine/cpu_info.h"
#include "tests/support/guarded_buffer.h"
#include "tests/support/processor.h"
#include "tests/support/random.h"

namespace TavroRTC::FDModule {
namespace {

using namespace tavro::test;

constexpr float infinity = std::numeric_limits<float>::infinity();

double halfValue(uint32_t half) {
  const double sign = (half & 0x8000U) != 0 ? -1 : 1;
  const auto exponent = static_cast<int>(half >> 10 & 31);
  const int mantissa = half & 1023;
  if (exponent == 31)
    return mantissa == 0 ? sign * std::numeric_limits<double>::infinity() : std::nan("");
  return sign *
         (exponent == 0 ? std::ldexp(mantissa, -24) : std::ldexp(1024 + mantissa, exponent - 25));
}

// The half whose magnitude is `value` rounded to the step of its binade, to the nearest or toward
// zero. Consecutive patterns are consecutive values, so that a carry into the exponent needs no
// care.
uint16_t narrowed(float value, bool toNearest) {
  const uint32_t sign = std::signbit(value) ? 0x8000 : 0;
  const double magnitude = std::fabs(double{value});
  const auto pattern = [sign](uint32_t bits) { return static_cast<uint16_t>(sign | bits); };
  if (std::isnan(value))
    return 0x7FFF;
  if (std::isinf(value) || (toNearest && magnitude >= 65520))
    return pattern(0x7C00);
  if (magnitude > 65504 && !toNearest)
    return pattern(0x7FFF);
  const int exponent = magnitude == 0 ? -14 : std::max(-14, std::ilogb(magnitude));
  const double steps = std::ldexp(magnitude, 10 - exponent);
  const double whole = toNearest ? std::nearbyint(steps) : std::trunc(steps);
  return pattern(static_cast<uint32_t>((exponent + 14) * 1024 + static_cast<int>(whole)));
}

// Around every half: itself, its neighbours among the floats, and the tie with the next half; and
// random floats of any size. A multiple of 8.
std::vector<float> floatsToNarrow() {
  std::vector<float> floats;
  for (uint32_t half = 0; half < 65536; ++half) {
    const auto value = static_cast<float>(halfValue(half));
    const auto next = static_cast<float>(halfValue(half ^ ((half & 0x7FFFU) < 0x7BFFU ? 1U : 0U)));
    floats.insert(floats.end(), {value, std::nextafter(value, infinity),
                                 std::nextafter(value, -infinity), (value + next) / 2});
  }
  TracedRandom random;
  for (int i = 0; i < 1 << 18; ++i)
    floats.push_back(std::bit_cast<float>(random.between(INT32_MIN, INT32_MAX)));
  for (const float value :
       {65504.0F, 65519.996F, 65520.0F, 65536.0F, 70000.0F, 1e-45F, 0x1p-25F, 0x1.8p-25F})
    floats.push_back(value);
  return floats;
}

void checkEveryHalf(bool byInstruction) {
  std::vector<uint16_t> halves(65536);
  std::iota(halves.begin(), halves.end(), uint16_t{0});
  std::vector<float> widened(halves.size());
  halfToFloat(halves.data(), widened.data(), 65536);
  for (uint32_t half = 0; half < 65536; ++half) {
    const double expected = halfValue(half);
    uint32_t bits = std::bit_cast<uint32_t>(static_cast<float>(expected));
    if (std::isnan(expected))
      bits =
          byInstruction ? (half & 0x8000U) << 16 | 0x7FC00000U | (half & 1023U) << 13 : 0x7FC00000U;
    ASSERT_EQ(std::bit_cast<uint32_t>(widened[half]), bits) << "half " << half;
  }

  SCOPED_TRACE(seedNote(baseSeed()));
  const std::vector<float> floats = floatsToNarrow();
  halves.resize(floats.size());
  floatToHalf(floats.data(), halves.data(), static_cast<int64_t>(floats.size()));
  for (size_t i = 0; i < floats.size(); ++i) {
    if (byInstruction && std::isnan(floats[i]))
      ASSERT_GT(halves[i] & 0x7FFFU, 0x7C00U) << "element " << i;
    else
      ASSERT_EQ(halves[i], narrowed(floats[i], byInstruction))
          << floats[i] << " bits " << std::bit_cast<uint32_t>(floats[i]);
  }
}

TEST(HalfConversion, MatchesArithmeticOnEveryHalf) {
  if (cpuInfo().runsF16c())
    checkEveryHalf(true);
  const Processor plain(CpuInfo{});
  checkEveryHalf(false);
}

TEST(HalfConversion, OnlyWholeGroupsAreRounded) {
  const int64_t groupSize = cpuInfo().runsF16c() ? 8 : 1 << 20;
  for (int64_t count = 0; count <= 40; ++count) {
    SCOPED_TRACE(count);
    const auto size = static_cast<size_t>(count);
    GuardedBuffer<float> floats(size);
    GuardedBuffer<uint16_t> halves(size);
    GuardedBuffer<float> back(size);
    std::fill(floats.begin(), floats.end(), 1.00097644F);
    floatToHalf(floats.data(), halves.data(), count);
    halfToFloat(halves.data(), back.data(), count);
    for (int64_t i = 0; i < count; ++i) {
      const bool rounded = i < count / groupSize * groupSize;
      ASSERT_EQ(halves[static_cast<size_t>(i)], rounded ? 0x3C01 : 0x3C00);
      ASSERT_EQ(back[static_cast<size_t>(i)], rounded ? 1.0009765625F : 1.0F);
    }
    ASSERT_TRUE(halves.intact() && back.intact());
  }
}

TEST(ByteConversion, RowsOfEveryWidth) {
  TracedRandom random;
  const float scales[] = {0.00392156886F, 1.0F, random.real(-2, 2)};
  for (int32_t width = 0; width <= 70; ++width) {
    SCOPED_TRACE(width);
    const auto pixels = static_cast<size_t>(width);
    const float mean = width % 2 == 0 ? 0.0F : random.real(0, 255);
    const float scale = scales[width % 3];
    const Guard guard = random.chance(0.5) ? Guard::behind : Guard::inFront;
    GuardedBuffer<uint8_t> bytes(3 * pixels, guard);
    for (uint8_t& byte : bytes)
      byte = random.byte();

    GuardedBuffer<float> row(pixels, guard);
    bytesToFloat(bytes.data(), row.data(), width, mean, scale);
    for (size_t i = 0; i < pixels; ++i)
      ASSERT_EQ(row[i], (static_cast<float>(bytes[i]) - mean) * scale) << "element " << i;

    GuardedBuffer<float> planes(3 * (pixels + 2), guard);
    bytesToFloatPlanes(bytes.data(), planes.data(), width, mean, scale);
    for (size_t k = 0; k < 3; ++k)
      for (size_t i = 0; i < pixels + 2; ++i) {
        const bool border = i == 0 || i == pixels + 1;
        const float expected =
            border ? 0 : (static_cast<float>(bytes[3 * (i - 1) + k]) - mean) * scale;
        ASSERT_EQ(planes[k * (pixels + 2) + i], expected) << "channel " << k << " column " << i;
      }
    ASSERT_TRUE(row.intact() && planes.intact() && bytes.intact());
  }
}

TEST(Conversion, NegativeCountsConvertNothing) {
  float untouched = 7;
  uint16_t half = 0x3C00;
  const uint8_t byte = 1;
  bytesToFloat(&byte, &untouched, -20, 0, 1);
  bytesToFloatPlanes(&byte, &untouched, -2, 0, 1);
  halfToFloat(&half, &untouched, -20);
  floatToHalf(&untouched, &half, -20);
  EXPECT_TRUE(untouched == 7 && half == 0x3C00);
}

}  // namespace
}  // namespace TavroRTC::FDModule
