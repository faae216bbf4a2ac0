#include "engine/weight_packing.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <limits>
#include <numeric>
#include <string_view>

#include "tests/support/guarded_buffer.h"
#include "tests/support/random.h"

namespace TavroRTC::FDModule {
namespace {

using namespace tavro::test;

// A layout as the mixed-radix digits of a position, most significant first: n = block of output
// channels, L = lane, h, w, c as they are, g = channel within a group.
struct Order {
  int32_t lanes;  // 0: all n
  std::string_view digits;
  int32_t group = 1;
  bool exactOnly = false;
};

// By layout code.
// clang-format off
constexpr Order orders[] = {
    {1, "nhwcL"}, {1, "nchwL"},
    {32, "nhwcL"}, {24, "nhwcL"}, {16, "nhwcL"}, {8, "nhwcL"}, {4, "nhwcL"}, {2, "nhwcL"}, {1, "nhwcL"},
    {24, "nhcwL"}, {16, "nhcwL"}, {12, "nhcwL"}, {8, "nhcwL"}, {4, "nhcwL"}, {2, "nhcwL"}, {1, "nhcwL"},
    {4, "nchwL"}, {8, "nchwL"},
    {1, "nhwcL"}, {0, "hcwL", 1, true}, {0, "hwcL"},
    {24, "nchwLg", 4, true}, {18, "nchwLg", 4, true},
    {24, "nchwLg", 8, true}, {18, "nchwLg", 8, true},
    {4, "ncwhL", 1, true}};
// clang-format on

Order effectiveOrder(int32_t code, const TensorExtents& e, int32_t sourceCode) {
  const Order plain = orders[18];
  if (code > 25)
    return plain;
  const Order order = orders[code];
  const bool whole = order.lanes == 0 || (e.n % order.lanes == 0 && e.c % order.group == 0);
  return order.exactOnly && (sourceCode == 0 || !whole) ? plain : order;
}

// Which value belongs at a position of the packed data, if the source holds 1, 2, 3...
float expectedValue(const Order& order, const TensorExtents& e, int32_t sourceCode,
                    int64_t position) {
  const int32_t lanes = order.lanes == 0 ? e.n : order.lanes;
  const auto extentOf = [&](char digit) -> int64_t {
    switch (digit) {
      case 'h':
        return e.h;
      case 'w':
        return e.w;
      case 'c':
        return e.c / order.group;
      case 'g':
        return order.group;
      case 'L':
        return lanes;
      default:
        return std::numeric_limits<int64_t>::max();
    }
  };
  std::array<int64_t, 128> digits = {};
  const auto digit = [&](char name) -> int64_t& { return digits[static_cast<uint8_t>(name)]; };
  for (size_t i = order.digits.size(); i-- > 0;) {
    const char name = order.digits[i];
    digit(name) = position % extentOf(name);
    position /= extentOf(name);
  }
  const int64_t first = std::max<int64_t>(0, std::min<int64_t>(digit('n') * lanes, e.n - lanes));
  const int64_t o = first + digit('L');
  const int64_t y = digit('h');
  const int64_t x = digit('w');
  const int64_t i = digit('c') * order.group + digit('g');
  if (o >= e.n)
    return 0;
  const int64_t element =
      sourceCode == 0 ? ((o * e.h + y) * e.w + x) * e.c + i : ((o * e.c + i) * e.h + y) * e.w + x;
  return static_cast<float>(element + 1);
}

void checkPacking(const TensorExtents& e, int32_t sourceCode, int32_t code, Guard guard) {
  SCOPED_TRACE(testing::Message() << "n " << e.n << " h " << e.h << " w " << e.w << " c " << e.c
                                  << ", code " << sourceCode << " to " << code);
  const Order order = effectiveOrder(code, e, sourceCode);
  const int64_t lanes = order.lanes == 0 ? e.n : order.lanes;
  const int64_t count = (e.n + lanes - 1) / lanes * lanes * e.h * e.w * e.c;
  ASSERT_EQ(packedElementCount(e, code), static_cast<uint64_t>(count));

  GuardedBuffer<float> source(static_cast<size_t>(e.n * e.h * e.w * e.c), guard);
  std::iota(source.begin(), source.end(), 1.0F);
  GuardedBuffer<float> packed(static_cast<size_t>(count), guard);
  packWeights(source.data(), packed.data(), e, sourceCode, code);
  ASSERT_TRUE(packed.intact() && source.intact());
  for (int64_t i = 0; i < count; ++i)
    ASSERT_EQ(packed[static_cast<size_t>(i)], expectedValue(order, e, sourceCode, i))
        << "position " << i;
}

TEST(WeightPacking, EveryPositionOfEveryLayoutHoldsItsElement) {
  TracedRandom random;
  for (int32_t n = 1; n <= 40; ++n)
    for (const int32_t group : {1, 1, 4, 8}) {
      const int32_t channels = group * random.between(1, group == 1 ? 9 : 3);
      const TensorExtents e = {n, random.between(1, 5), random.between(1, 5), channels};
      const Guard guard = random.chance(0.5) ? Guard::behind : Guard::inFront;
      for (int32_t code = 0; code <= 30; ++code)
        for (const int32_t sourceCode : {0, 1})
          checkPacking(e, sourceCode, code, guard);
    }
}

TEST(WeightPacking, ImpossibleSizesAreRefused) {
  constexpr int32_t largest = std::numeric_limits<int32_t>::max();
  EXPECT_EQ(packedElementCount({-1, 1, 1, 1}, 4), std::nullopt);
  EXPECT_EQ(packedElementCount({1, -1, -1, 1}, 0), std::nullopt);
  EXPECT_EQ(packedElementCount({1, 1, 1, 1}, -1), std::nullopt);
  EXPECT_EQ(packedElementCount({largest, largest, largest, 1}, 4), std::nullopt);
  EXPECT_EQ(packedElementCount({largest, 1, 1, 1}, 2), 0x80000000U);
  for (const int32_t code : {0, 1, 4, 19, 20, 25, 31})
    EXPECT_EQ(packedElementCount({}, code), 0U);

  float untouched = 7;
  const float source = 1;
  packWeights(&source, &untouched, {0, 3, 3, 1}, 1, 20);
  packWeights(&source, &untouched, {-4, -1, 1, 1}, 1, 0);
  packWeights(&source, &untouched, {1, 1, 1, 1}, 4, 0);
  EXPECT_EQ(untouched, 7);
}

}  // namespace
}  // namespace TavroRTC::FDModule
