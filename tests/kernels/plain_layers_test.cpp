// The layers without a window. Activation, BinaryOp and Softmax against formulas in double
// precision, or bit for bit where each value is a single float operation; Concat and Reshape, which
// move no arithmetic; and Gemm in its stated order, bit for bit.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <numeric>
#include <span>
#include <utility>
#include <vector>

#include "engine/simd/layers.h"
#include "tests/kernels/conv_reference.h"
#include "tests/kernels/small_net.h"
#include "tests/support/random.h"
#include "tests/support/sweep.h"

namespace TavroRTC::FDModule {
namespace {

using namespace tavro::test;

bool hasExtents(const Tensor& tensor, const Extents& extents) {
  return tensor.n == extents.n && tensor.h == extents.h && tensor.w == extents.w &&
         tensor.c == extents.c;
}

/// Numbers up to `limit`, and those at the edges of the range.
std::vector<float> drawValues(size_t count, Random& random, float limit) {
  std::vector<float> values = drawFloats(count, random, Content::wild);
  for (float& value : values)
    value = random.chance(0.05) ? std::copysign(0.0F, value) : value * limit;
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

TEST(Activation, EveryKindInPlaceAndOutOfPlace) {
  TracedRandom random;
  for (int i = 0; i < 240; ++i) {
    constexpr int32_t kinds[] = {0, 1, 2, 3, 4, 5, 6, 7, -1, 100};
    const int32_t kind = kinds[i % 10];
    const bool inPlace = i / 10 % 2 == 0;
    const Extents extents = {random.between(1, 2), random.between(1, 5), random.between(1, 5),
                             random.between(1, 9)};
    SCOPED_TRACE(testing::Message() << "kind " << kind << (inPlace ? " in place" : ""));
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
    const float tolerance = kind == 4 || kind == 5 ? 4e-7F : 0;
    ASSERT_EQ(output.size(), input.size());
    for (size_t k = 0; k < input.size(); ++k) {
      const float expected = activate(kind, input[k], slopes[k % channels]);
      ASSERT_TRUE(sameFloat(output[k], expected) ||
                  (tolerance != 0 && std::abs(output[k] - expected) <= tolerance))
          << output[k] << " of " << input[k];
    }
    EXPECT_TRUE(inPlace || isUnchanged(input, x.floatData)) << "changed its input";
  }
}

TEST(Activation, MissingSlopesWriteNothing) {
  const std::vector<float> before = {7, 8, 9};
  SmallNet small;
  small.addInput("x", {1, 1, 1, 3}, {-1, -2, -3});
  small.addInput("y", {1, 1, 1, 3}, before);
  small.addLayer({.type = "Activation", .io = {"x", "y"}, .ints = {3}});
  EXPECT_TRUE(small.compute());
  EXPECT_EQ(small.values("y"), before);
}

// --- BinaryOp ---

/// The value there; where a shape is smaller, its last one.
float at(const Extents& extents, const std::vector<float>& values, const Extents& position) {
  const int32_t row =
      std::min(position.n, extents.n - 1) * extents.h + std::min(position.h, extents.h - 1);
  const int32_t column = row * extents.w + std::min(position.w, extents.w - 1);
  const int32_t index = column * extents.c + std::min(position.c, extents.c - 1);
  return values[static_cast<size_t>(index)];
}

const std::pair<Extents, Extents> broadcasts[] = {
    {{1, 5, 5, 4}, {1, 5, 5, 4}},                                  // the same shape
    {{1, 7, 3, 5}, {1, 7, 3, 5}},                                  // with a tail behind the vectors
    {{1, 5, 5, 4}, {1, 5, 5, 1}}, {{1, 5, 5, 1}, {1, 5, 5, 4}},    // one value a pixel
    {{1, 5, 5, 4}, {1, 1, 1, 4}}, {{1, 1, 1, 4}, {1, 5, 5, 4}},    // one row for all pixels
    {{1, 5, 5, 4}, {1, 1, 1, 1}}, {{1, 1, 1, 6}, {1, 4, 1, 1}},    // one value; crossed
    {{1, 5, 1, 3}, {1, 1, 6, 3}}, {{1, 2, 3, 4}, {1, 5, 4, 3}},    // crossed; last values repeated
    {{1, 3, 3, 2}, {1, 3, 3, 5}}, {{1, 1, 1, 33}, {1, 1, 1, 33}},  // unequal channels; long
    {{3, 2, 2, 3}, {3, 2, 2, 3}},                                  // three images of one shape
};

TEST(BinaryOp, RepeatsTheSmallerShapeAndMergesActivations) {
  TracedRandom random;
  for (const auto& [shapeA, shapeB] : broadcasts)
    for (int i = 0; i < 10; ++i) {
      const int32_t op = i < 5 ? 0 : 2;
      const int32_t kind = std::array{0, 1, 2, 3, 6}[static_cast<size_t>(i % 5)];
      SCOPED_TRACE(testing::Message() << shapeA.h << 'x' << shapeA.w << 'x' << shapeA.c << " and "
                                      << shapeB.h << 'x' << shapeB.w << 'x' << shapeB.c
                                      << ", operation " << op << ", activation " << kind);
      const std::vector<float> a = drawValues(shapeA.count(), random, 2);
      const std::vector<float> b = drawValues(shapeB.count(), random, 2);
      SmallNet small;
      small.addInput("a", shapeA, a);
      small.addInput("b", shapeB, b);
      small.addLayer({.type = "Add", .io = {"a", "b", "sum"}, .ints = {op}});
      const Layer* activation = small.addLayer(
          {.type = "Activation", .io = {"sum", "y"}, .ints = {kind}, .floats = {parameter}});
      small.net.env->rewriteGraph(&small.net);
      ASSERT_TRUE(small.compute());
      EXPECT_EQ(activation->fused, op == 0 && (kind == 1 || kind == 2 || kind == 6));

      const Extents extents = {shapeA.n, std::max(shapeA.h, shapeB.h), std::max(shapeA.w, shapeB.w),
                               std::max(shapeA.c, shapeB.c)};
      ASSERT_TRUE(hasExtents(small.tensor("y"), extents));
      std::vector<float> expected;
      Extents place;
      for (place.n = 0; place.n < extents.n; ++place.n)
        for (place.h = 0; place.h < extents.h; ++place.h)
          for (place.w = 0; place.w < extents.w; ++place.w)
            for (place.c = 0; place.c < extents.c; ++place.c) {
              const float p = at(shapeA, a, place), q = at(shapeB, b, place);
              expected.push_back(activate(kind, op == 2 ? p * q : p + q, 1));
            }
      ASSERT_TRUE(sameFloats(small.values("y"), expected));
    }
}

TEST(BinaryOp, TypeMulMultipliesAndConstantsAreOperands) {
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
TEST(Softmax, ComputesProbabilities) {
  TracedRandom random;
  for (const int32_t channels : {1, 2, 3, 4, 5, 17})
    for (const auto& [low, high] : {std::pair{-8.0F, 8.0F},
                                    {-60.0F, -40.0F},
                                    {60.0F, 200.0F},
                                    {0.5F, 0.5F},
                                    {1e30F, 1e30F}}) {
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

// --- Concat ---

TEST(Concat, InterleavesThePixelsOfItsInputs) {
  constexpr const char* names[] = {"a", "b", "c", "d"};
  for (const std::vector<int32_t>& channels :
       {std::vector{3, 5}, {4, 8}, {1}, {2, 7, 9}, {1, 1, 16, 6}}) {
    SmallNet small;
    RowOf row = {.type = "Concat"};
    for (size_t i = 0; i < channels.size(); ++i) {
      const Extents extents = {1, 2, 3, channels[i]};
      std::vector<float> values(extents.count());
      std::iota(values.begin(), values.end(), static_cast<float>(1000 * i));
      small.addInput(names[i], extents, values);
      row.io.push_back(names[i]);
    }
    row.io.push_back("y");
    small.addLayer(row);
    ASSERT_TRUE(small.compute());
    std::vector<float> expected;
    for (int32_t pixel = 0; pixel < 6; ++pixel)
      for (size_t i = 0; i < channels.size(); ++i)
        for (int32_t channel = 0; channel < channels[i]; ++channel)
          expected.push_back(static_cast<float>(1000 * i) +
                             static_cast<float>(pixel * channels[i] + channel));
    EXPECT_EQ(small.values("y"), expected);
  }
}

// --- Reshape ---

TEST(Reshape, LendsItsInputUnderAnotherShape) {
  const struct {
    Extents input;
    std::vector<int32_t> target;
    Extents output;
  } cases[] = {{{1, 1, 1, 4176}, {1, 1, -1, 2}, {1, 1, 2088, 2}},
               {{1, 24, 24, 6}, {1, 1, 1, -1}, {1, 1, 1, 3456}},
               {{1, 4, 4, 2}, {1, 0, 8, 2}, {1, 2, 8, 2}},
               {{1, 4, 4, 2}, {1, 2, 4, 4}, {1, 2, 4, 4}},
               {{1, 1, 1, 7}, {1, 1, -1, 2}, {1, 1, 3, 2}},  // truncates
               {{1, 1, 1, 7}, {1, 1, 2, 2}, {1, 1, 2, 2}}};  // takes the first values
  for (const auto& c : cases) {
    SmallNet small;
    Tensor& x = small.addInput("x", c.input, std::vector<float>(c.input.count()));
    std::vector<uint16_t> half(c.input.count());
    x.borrow(half.data());
    small.addLayer({.type = "Reshape", .io = {"x", "y"}, .ints = c.target});
    ASSERT_TRUE(small.compute());
    const Tensor& y = small.tensor("y");
    EXPECT_TRUE(hasExtents(y, c.output)) << y.n << ' ' << y.h << ' ' << y.w << ' ' << y.c;
    EXPECT_TRUE(y.floatData == x.floatData && y.halfData == half.data() && y.floatBorrowed);

    std::vector<float> other(c.input.count());
    x.borrow(other.data());
    ASSERT_TRUE(small.run());
    EXPECT_EQ(y.floatData, other.data()) << "kept a buffer that its input has left";
  }
}

// The output has been packed before: 16 blocks' lanes for 10 values. What it counts and how much
// memory it has follow from its input from then on, in floats and in halves.
TEST(Reshape, ForgetsWhatItsOutputHeldBefore) {
  SmallNet small;
  Tensor& x = small.addInput("x", {1, 1, 1, 4}, {1, 2, 3, 4});
  std::vector<uint16_t> halves(4, 0x3C00);
  x.borrow(halves.data());
  small.addLayer({.type = "Reshape", .io = {"x", "y"}, .ints = {1, 1, 1, -1}});
  Tensor& y = small.tensor("y");
  y.n = 10;
  y.h = y.w = y.c = 1;
  ASSERT_NE(y.data(5), nullptr);
  ASSERT_EQ(y.count(), 16U);
  ASSERT_TRUE(small.compute());
  EXPECT_EQ(y.count(), 4U);
  y.c = 5;  // one more than the lender has
  EXPECT_FALSE(y.storageFits() || y.halfStorageFits());
  EXPECT_EQ(y.data(0), nullptr);
  x.c = 5;
  EXPECT_FALSE(small.run());
}

// --- Gemm ---

// The sum of a[i] * b[i]: in lanes of blocks of 4, or of 8 on a processor without AVX and FMA; what
// is left joins the bias, and then the lanes do.
float dotInOrder(const float* a, const float* b, int32_t count, float bias, bool isWide) {
  const int32_t block = isWide ? 4 : 8;
  const int32_t inLanes = count / block * block;
  float lanes[8] = {};
  for (int32_t i = 0; i < inLanes; ++i)
    lanes[i % block] += a[i] * b[i];
  for (int32_t i = inLanes; i < count; ++i)
    bias += a[i] * b[i];
  for (int32_t lane = 0; lane < block; ++lane)
    bias += lanes[lane];
  return bias;
}

TEST(Gemm, MultipliesMatrixAndVectorInTheStatedOrder) {
  TracedRandom random;
  for (int i = 0; i < caseCount(600); ++i) {
    const bool isRow = random.chance(0.5);
    const int32_t m = isRow ? 1 : random.between(1, 40);
    const int32_t k = random.between(1, 40);
    const int32_t n = isRow ? random.between(1, 40) : 1;
    const bool transA = random.chance(0.4);
    const bool transB = random.chance(0.5);
    const int32_t layoutA = random.between(0, 1);
    const int32_t layoutB = random.between(0, 1);
    const bool isWide = random.chance(0.5);
    const Processor processor(isWide);
    SCOPED_TRACE(testing::Message() << "m " << m << " k " << k << " n " << n << " transposed "
                                    << transA << transB << " layouts " << layoutA << layoutB);
    // A rows x columns matrix, in layout code 1 (h, w) or 0 (w, c).
    const auto matrix = [](bool isTransposed, int32_t rows, int32_t columns, int32_t layout) {
      if (isTransposed)
        std::swap(rows, columns);
      return layout == 1 ? Extents{1, rows, columns, 1} : Extents{1, 1, rows, columns};
    };
    const Extents shapeA = matrix(transA, m, k, layoutA), shapeB = matrix(transB, k, n, layoutB);
    const std::vector<float> a = drawFloats(shapeA.count(), random);
    const std::vector<float> b = drawFloats(shapeB.count(), random);
    const int32_t size = n != 1 ? n : m;
    const auto length = static_cast<size_t>(size), depth = static_cast<size_t>(k);
    std::vector<float> bias(length);
    SmallNet small;
    small.addInput("x", shapeA, a, layoutA);
    small.addConstant("matrix", shapeB, b, layoutB);
    if (random.chance(0.6)) {
      bias = drawFloats(length, random);
      small.addConstant("bias", {1, 1, 1, size}, bias, 0);
    }
    small.addLayer({.type = "Gemm",
                    .io = {"x", "y"},
                    .ints = {transA, transB},
                    .floats = {3, 5},  // without effect
                    .weights = {"matrix", "bias"}});
    ASSERT_TRUE(small.reshape());
    EXPECT_TRUE(hasExtents(small.tensor("y"),
                           layoutA == 0 ? Extents{1, 1, 1, size} : Extents{1, 1, size, 1}));
    if (transA && m != 1) {
      ASSERT_FALSE(small.run());
      continue;
    }
    std::vector<float> expected;
    for (size_t row = 0; row < length; ++row)
      if (n == 1 && !transA) {
        expected.push_back(dotInOrder(&a[row * depth], b.data(), k, bias[row], isWide));
      } else if (transB) {
        expected.push_back(dotInOrder(&b[row * depth], a.data(), k, bias[row], isWide));
      } else {
        expected.push_back(bias[row]);
        for (size_t j = 0; j < depth; ++j)
          expected.back() += a[j] * b[j * length + row];
      }
    for (int run = 0; run < 2; ++run) {
      ASSERT_TRUE(small.run());
      ASSERT_TRUE(sameFloats(small.values("y"), expected)) << "run " << run;
    }
  }
}

}  // namespace
}  // namespace TavroRTC::FDModule
