// Activation, BinaryOp and Softmax against formulas in double precision, or bit for bit where each
// value is a single float operation.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <span>
#include <utility>
#include <vector>

#include "engine/simd/elementwise_layers.h"
#include "tests/kernels/conv_reference.h"
#include "tests/kernels/small_net.h"
#include "tests/support/random.h"
#include "tests/support/sweep.h"

namespace TavroRTC::FDModule {
namespace {

using namespace tavro::test;

std::vector<float> drawValues(size_t count, Random& random, float limit) {
  using Limits = std::numeric_limits<float>;
  constexpr float edges[] = {0.0F,
                             -0.0F,
                             1.0F,
                             -1.0F,
                             1e-40F,
                             3e38F,
                             -3e38F,
                             Limits::infinity(),
                             -Limits::infinity(),
                             Limits::quiet_NaN()};
  std::vector<float> values(count);
  for (float& value : values)
    value = random.chance(0.2) ? edges[random.between(0, 9)] : random.real(-limit, limit);
  return values;
}

// --- Activation ---

constexpr float parameter = 0.75F;  // clipMax and leakSlope

float activate(int32_t kind, float x, float slope) {
  switch (kind) {
    case 3:
      return 0 > x ? x * slope : x;
    case 4:
      return static_cast<float>(std::tanh(double{x}));
    case 5:
      return static_cast<float>(1 / (1 + std::exp(-double{x})));
    default:
      return activateInFloat(x, {kind, parameter, parameter});
  }
}

void checkActivation(int32_t kind, bool inPlace, const Extents& extents, Random& random) {
  const std::vector<float> input = drawValues(extents.count(), random, 6);
  const auto channels = static_cast<size_t>(extents.c);
  const std::vector<float> slopes = drawValues(channels, random, 2);
  SmallNet small;
  const Tensor& x = small.addInput("x", extents, input);
  small.addConstant("slopes", {1, 1, 1, extents.c}, slopes);
  small.addLayer({.type = "Activation",
                  .io = {"x", inPlace ? "x" : "y"},
                  .ints = {kind},
                  .floats = {parameter},
                  .weights = {"slopes"}});
  ASSERT_TRUE(small.compute());
  const std::vector<float> output = small.values(inPlace ? "x" : "y");
  std::vector<float> expected(input.size());
  for (size_t i = 0; i < input.size(); ++i)
    expected[i] = activate(kind, input[i], slopes[i % channels]);
  if (kind == 4 || kind == 5) {
    for (size_t i = 0; i < input.size(); ++i)
      ASSERT_TRUE(sameFloat(output[i], expected[i]) || std::abs(output[i] - expected[i]) <= 4e-7F)
          << output[i] << " of " << input[i];
  } else {
    ASSERT_TRUE(sameFloats(output, expected));
  }
  if (!inPlace) {
    EXPECT_TRUE(isUnchanged(input, x.floatData)) << "changed its input";
  }
}

TEST(Activation, everyKindInPlaceAndOutOfPlace) {
  TracedRandom random;
  for (const int32_t kind : {0, 1, 2, 3, 4, 5, 6, 7, -1, 100})
    for (const bool inPlace : {false, true})
      for (int i = 0; i < 12; ++i) {
        const Extents extents = {random.between(1, 2), random.between(1, 5), random.between(1, 5),
                                 random.between(1, 9)};
        SCOPED_TRACE(testing::Message() << "kind " << kind << (inPlace ? " in place" : ""));
        checkActivation(kind, inPlace, extents, random);
        if (HasFatalFailure())
          return;
      }
}

TEST(Activation, missingSlopesWriteNothing) {
  const std::vector<float> before = {7, 8, 9};
  SmallNet small;
  small.addInput("x", {1, 1, 1, 3}, {-1, -2, -3});
  small.addInput("y", {1, 1, 1, 3}, before);
  small.addLayer({.type = "Activation", .io = {"x", "y"}, .ints = {3}});
  EXPECT_TRUE(small.compute());
  EXPECT_EQ(small.values("y"), before);
}

// --- BinaryOp ---

const float* at(const Extents& extents, const std::vector<float>& values, int32_t y, int32_t x,
                int32_t channel) {
  const int32_t row = std::min(y, extents.h - 1);
  const int32_t column = std::min(x, extents.w - 1);
  const int32_t index = (row * extents.w + column) * extents.c + std::min(channel, extents.c - 1);
  return &values[static_cast<size_t>(index)];
}

struct Operands {
  Extents a;
  Extents b;
};

const Operands broadcasts[] = {
    {{1, 5, 5, 4}, {1, 5, 5, 4}},                                  // the same shape
    {{1, 7, 3, 5}, {1, 7, 3, 5}},                                  // with a tail behind the vectors
    {{1, 5, 5, 4}, {1, 5, 5, 1}}, {{1, 5, 5, 1}, {1, 5, 5, 4}},    // one value a pixel
    {{1, 5, 5, 4}, {1, 1, 1, 4}}, {{1, 1, 1, 4}, {1, 5, 5, 4}},    // one row for all pixels
    {{1, 5, 5, 4}, {1, 1, 1, 1}}, {{1, 1, 1, 6}, {1, 4, 1, 1}},    // one value; crossed
    {{1, 5, 1, 3}, {1, 1, 6, 3}}, {{1, 2, 3, 4}, {1, 5, 4, 3}},    // crossed; last values repeated
    {{1, 3, 3, 2}, {1, 3, 3, 5}}, {{1, 1, 1, 33}, {1, 1, 1, 33}},  // unequal channels; long
    {{3, 2, 2, 3}, {3, 2, 2, 3}},                                  // three images of one shape
};

void checkBinary(const Operands& shapes, int32_t op, int32_t kind, Random& random) {
  const std::vector<float> a = drawValues(shapes.a.count(), random, 2);
  const std::vector<float> b = drawValues(shapes.b.count(), random, 2);
  SmallNet small;
  small.addInput("a", shapes.a, a);
  small.addInput("b", shapes.b, b);
  small.addLayer({.type = "Add", .io = {"a", "b", "sum"}, .ints = {op}});
  const Layer* activation = small.addLayer(
      {.type = "Activation", .io = {"sum", "y"}, .ints = {kind}, .floats = {parameter}});
  small.net.env->rewriteGraph(&small.net);
  ASSERT_TRUE(small.compute());
  EXPECT_EQ(activation->fused, op == 0 && (kind == 1 || kind == 2 || kind == 6));

  const Tensor& y = small.tensor("y");
  const Extents extents = {shapes.a.n, std::max(shapes.a.h, shapes.b.h),
                           std::max(shapes.a.w, shapes.b.w), std::max(shapes.a.c, shapes.b.c)};
  ASSERT_TRUE(y.n == extents.n && y.h == extents.h && y.w == extents.w && y.c == extents.c);
  std::vector<float> expected;
  if (extents.n > 1)  // equal shapes
    for (size_t i = 0; i < a.size(); ++i)
      expected.push_back(activate(kind, op == 2 ? a[i] * b[i] : a[i] + b[i], 1));
  else
    for (int32_t row = 0; row < extents.h; ++row)
      for (int32_t column = 0; column < extents.w; ++column)
        for (int32_t channel = 0; channel < extents.c; ++channel) {
          const float p = *at(shapes.a, a, row, column, channel);
          const float q = *at(shapes.b, b, row, column, channel);
          expected.push_back(activate(kind, op == 2 ? p * q : p + q, 1));
        }
  ASSERT_TRUE(sameFloats(small.values("y"), expected));
}

TEST(BinaryOp, repeatsTheSmallerShapeAndMergesActivations) {
  TracedRandom random;
  for (const Operands& shapes : broadcasts)
    for (const int32_t op : {0, 2})
      for (const int32_t kind : {0, 1, 2, 3, 6}) {
        SCOPED_TRACE(testing::Message()
                     << shapes.a.h << 'x' << shapes.a.w << 'x' << shapes.a.c << " and "
                     << shapes.b.h << 'x' << shapes.b.w << 'x' << shapes.b.c << ", operation " << op
                     << ", activation " << kind);
        checkBinary(shapes, op, kind, random);
        if (HasFatalFailure())
          return;
      }
}

TEST(BinaryOp, typeMulMultipliesAndConstantsAreOperands) {
  SmallNet small;
  small.addInput("x", {1, 1, 1, 2}, {3, 5});
  small.addConstant("k", {1, 1, 1, 2}, {10, 100});
  const LayerRow row = RowOf{.type = "Mul", .io = {"x", "y"}, .ints = {0}, .weights = {"k"}}.row();
  simd::BinaryOp layer(row, small.net.tensors, small.net.weights);
  ASSERT_TRUE(layer.reshape(small.net.env) && layer.forward(small.net.env));
  EXPECT_EQ(small.values("y"), (std::vector<float>{30, 500}));
  EXPECT_TRUE(small.net.weights["k"].consumers.empty());
}

// --- Softmax ---

// For more than three channels nothing is subtracted from inputs below 0, so that these keep away
// from where exp underflows.
TEST(Softmax, givesProbabilities) {
  TracedRandom random;
  for (const int32_t channels : {1, 2, 3, 4, 5, 17})
    for (const auto& [low, high] :
         {std::pair{-8.0F, 8.0F}, {-60.0F, -40.0F}, {60.0F, 200.0F}, {0.5F, 0.5F}}) {
      const Extents extents = {1, random.between(1, 4), random.between(1, 9), channels};
      std::vector<float> input(extents.count());
      for (float& value : input)
        value = random.real(low, high);
      SmallNet small;
      small.addInput("x", extents, input);
      small.addLayer({.type = "Softmax", .io = {"x", "y"}});
      ASSERT_TRUE(small.compute());
      const std::vector<float> output = small.values("y");
      ASSERT_EQ(output.size(), input.size());
      const auto count = static_cast<size_t>(channels);
      for (size_t first = 0; first < input.size(); first += count) {
        const std::span row = std::span(input).subspan(first, count);
        const double largest = *std::ranges::max_element(row);
        double sum = 0;
        for (const float value : row)
          sum += std::exp(value - largest);
        for (size_t i = 0; i < count; ++i)
          ASSERT_NEAR(output[first + i], std::exp(row[i] - largest) / sum, 1e-6)
              << channels << " channels, from " << low << " to " << high;
      }
    }
}

TEST(Softmax, halvesEqualPairs) {
  SmallNet small;
  small.addInput("x", {1, 1, 2, 2}, {-3.5F, -3.5F, 1e30F, 1e30F});
  small.addLayer({.type = "Softmax", .io = {"x", "y"}});
  ASSERT_TRUE(small.compute());
  EXPECT_EQ(small.values("y"), std::vector<float>(4, 0.5F));
}

}  // namespace
}  // namespace TavroRTC::FDModule
