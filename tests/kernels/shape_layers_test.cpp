// Concat and Reshape, which move no arithmetic; Pooling and Gemm against their formulas in double
// precision.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <numeric>
#include <vector>

#include "engine/simd/pooling.h"
#include "tests/kernels/conv_reference.h"
#include "tests/kernels/small_net.h"
#include "tests/support/sweep.h"
#include "tests/support/traced_random.h"

namespace TavroRTC::FDModule {
namespace {

using namespace tavro::test;

constexpr double unitRoundoff = 0x1p-24;

bool hasExtents(const Tensor& tensor, const Extents& extents) {
  return tensor.n == extents.n && tensor.h == extents.h && tensor.w == extents.w &&
         tensor.c == extents.c;
}

// --- Concat ---

TEST(Concat, interleavesThePixelsOfItsInputs) {
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

TEST(Concat, refusesWhatDoesNotFit) {
  const struct {
    const char* what;
    Extents b;
    std::vector<const char*> io;
  } cases[] = {{"another height", {1, 3, 2, 1}, {"a", "b", "y"}},
               {"another width", {1, 2, 3, 1}, {"a", "b", "y"}},
               {"an input that is the output", {1, 2, 2, 1}, {"a", "b", "a"}},
               {"an empty input", {1, 2, 2, 1}, {"a", "none", "y"}},
               {"no input", {1, 2, 2, 1}, {"y"}}};
  for (const auto& c : cases) {
    SmallNet small;
    small.addInput("a", {1, 2, 2, 1}, std::vector<float>(4));
    small.addInput("b", c.b, std::vector<float>(c.b.count()));
    small.addLayer({.type = "Concat", .io = c.io});
    EXPECT_FALSE(small.compute()) << c.what;
  }
}

// --- Reshape ---

TEST(Reshape, lendsItsInputUnderAnotherShape) {
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

TEST(Reshape, refusesShapesThatItsInputCannotFill) {
  const struct {
    const char* what;
    std::vector<int32_t> target;
    bool isShaped;
  } cases[] = {{"two free positions", {1, -1, 0, 2}, false},
               {"more than fits 32 bits", {1, 65536, 65536, 1}, false},
               {"more than fits 64 bits", {1 << 30, 1 << 30, 1 << 30, 1 << 30}, false},
               {"more than the input has", {1, 1, 3, 3}, true}};
  for (const auto& c : cases) {
    SmallNet small;
    small.addInput("x", {1, 1, 1, 8}, std::vector<float>(8));
    small.addLayer({.type = "Reshape", .io = {"x", "y"}, .ints = c.target});
    EXPECT_EQ(small.reshape(), c.isShaped) << c.what;
    if (c.isShaped) {
      EXPECT_FALSE(small.run()) << c.what;
    }
    EXPECT_EQ(small.tensor("y").floatData, nullptr) << c.what;
  }
}

// --- Pooling ---

// AveragePool comes from the registry; the class knows more types than are registered.
std::unique_ptr<simd::Pooling> makePooling(const char* type, const ConvProblem& p,
                                           SmallNet& small) {
  const RowOf row = {.type = type,
                     .io = {"x", "y"},
                     .ints = {p.kernelW, p.kernelH, p.padLeft, p.padRight, p.padTop, p.padBottom,
                              p.strideW, p.strideH, p.dilationW, p.dilationH}};
  return std::make_unique<simd::Pooling>(row.row(), small.net.tensors, small.net.weights);
}

struct Reduced {
  int32_t count = 0;
  double sum = 0;
  double magnitude = 0;
  float largest = -std::numeric_limits<float>::max();
};

Reduced reduceWindow(const ConvProblem& p, const std::vector<float>& input, int32_t y, int32_t x,
                     int32_t channel) {
  Reduced reduced;
  for (int32_t ky = 0; ky < p.kernelH; ++ky)
    for (int32_t kx = 0; kx < p.kernelW; ++kx) {
      const int32_t row = y * p.strideH - p.padTop + ky * p.dilationH;
      const int32_t column = x * p.strideW - p.padLeft + kx * p.dilationW;
      if (row < 0 || row >= p.inputH || column < 0 || column >= p.inputW)
        continue;
      const int32_t index = (row * p.inputW + column) * p.inputC + channel;
      const float value = input[static_cast<size_t>(index)];
      ++reduced.count;
      reduced.sum += value;
      reduced.magnitude += std::abs(value);
      reduced.largest = std::max(reduced.largest, value);
    }
  return reduced;
}

// A mean of k values is off by at most the k roundings of its sum and two more.
void checkPooled(const ConvProblem& p, bool isMean, const std::vector<float>& input,
                 const std::vector<float>& output) {
  ASSERT_EQ(output.size(), (Extents{1, p.outputH, p.outputW, p.inputC}.count()));
  for (int32_t y = 0, i = 0; y < p.outputH; ++y)
    for (int32_t x = 0; x < p.outputW; ++x)
      for (int32_t channel = 0; channel < p.inputC; ++channel, ++i) {
        const Reduced expected = reduceWindow(p, input, y, x, channel);
        const float actual = output[static_cast<size_t>(i)];
        if (expected.count == 0)
          continue;  // a window in the padding alone has no value
        if (isMean) {
          ASSERT_NEAR(actual, expected.sum / expected.count,
                      (expected.count + 3) * unitRoundoff * expected.magnitude / expected.count);
        } else {
          ASSERT_EQ(actual, expected.largest);
        }
      }
}

TEST(Pooling, reducesTheWindowsThatLieInTheImage) {
  TracedRandom random;
  for (int i = 0; i < caseCount(600); ++i) {
    ConvProblem p = drawGeometry(random);
    if (random.chance(0.5)) {  // 2x2 or 3x3 windows, as networks have them
      p.kernelW = p.kernelH = random.between(2, 3);
      p.strideW = p.strideH = 2;
      p.dilationW = p.dilationH = 1;
    }
    if (!deriveOutputSize(p, Overhang::allowed))
      continue;
    const bool isMean = random.chance(0.5);
    SCOPED_TRACE(testing::Message() << "case " << i);
    SmallNet small;
    const Extents extents = {1, p.inputH, p.inputW, p.inputC};
    std::vector<float> input = drawFloats(extents.count(), random);
    if (random.chance(0.3))
      for (float& value : input)
        value -= 5;
    small.addInput("x", extents, input);
    const auto layer = makePooling(isMean ? "AveragePool" : "MaxPool", p, small);
    const Processor processor(random.chance(0.5));
    ASSERT_TRUE(layer->reshape(small.net.env) && layer->forward(small.net.env));
    checkPooled(p, isMean, input, small.values("y"));
    if (HasFatalFailure())
      return;
  }
}

TEST(Pooling, globalMeanCoversTheImage) {
  SmallNet small;
  const Extents image = {1, 5, 7, 3};
  std::vector<float> input(image.count());
  std::iota(input.begin(), input.end(), 0.0F);
  small.addInput("x", image, input);
  ConvProblem p;
  p.strideW = p.padTop = 2;
  const auto layer = makePooling("GlobalAveragePool", p, small);
  ASSERT_TRUE(layer->reshape(small.net.env) && layer->forward(small.net.env));
  EXPECT_TRUE(hasExtents(small.tensor("y"), {1, 1, 1, 3}));
  EXPECT_EQ(small.values("y"), (std::vector<float>{51, 52, 53}));
  EXPECT_EQ(layer->describe(), "5x7_s1x1_3x1x1x3");
}

TEST(Pooling, refusesWindowsThatMakeNoSense) {
  ConvProblem cases[6];
  cases[0].strideW = 0;
  cases[1].kernelH = 4;  // higher than the image
  cases[2].padLeft = -1;
  cases[3].kernelW = 0;
  cases[4].padLeft = cases[4].padRight = cases[4].padTop = cases[4].padBottom =
      32768;  // 2^32 values
  cases[5].strideH = 1 << 30;
  for (const ConvProblem& p : cases) {
    SmallNet small;
    small.addInput("x", {1, 3, 3, 1}, std::vector<float>(9));
    const auto layer = makePooling("AveragePool", p, small);
    EXPECT_FALSE(layer->reshape(small.net.env)) << &p - cases;
    EXPECT_FALSE(layer->forward(small.net.env)) << &p - cases;
  }
}

// --- Gemm ---

// A rows x columns matrix, in layout code 1 (h, w) or 0 (w, c).
Extents asMatrix(int32_t rows, int32_t columns, int32_t layout) {
  return layout == 1 ? Extents{1, rows, columns, 1} : Extents{1, 1, rows, columns};
}

struct Product {
  int32_t m, k, n;
  bool transA, transB;
  int32_t layoutA, layoutB;
};

void checkProduct(const Product& g, Random& random) {
  const auto [m, k, n, transA, transB, layoutA, layoutB] = g;
  const std::vector<float> a = drawFloats(Extents{1, 1, m, k}.count(), random);
  const std::vector<float> b = drawFloats(Extents{1, 1, k, n}.count(), random);
  const int32_t length = n != 1 ? n : m;
  const bool hasBias = random.chance(0.6);
  const std::vector<float> bias = hasBias ? drawFloats(static_cast<size_t>(length), random)
                                          : std::vector<float>(static_cast<size_t>(length));
  SmallNet small;
  small.addInput("x", transA ? asMatrix(k, m, layoutA) : asMatrix(m, k, layoutA), a, layoutA);
  small.addConstant("matrix", transB ? asMatrix(n, k, layoutB) : asMatrix(k, n, layoutB), b,
                    layoutB);
  if (hasBias)
    small.addConstant("bias", {1, 1, 1, length}, bias, 0);
  small.addLayer({.type = "Gemm",
                  .io = {"x", "y"},
                  .ints = {transA, transB},
                  .floats = {3, 5},  // without effect
                  .weights = {"matrix", "bias"}});
  ASSERT_TRUE(small.reshape());
  EXPECT_TRUE(hasExtents(small.tensor("y"),
                         layoutA == 0 ? Extents{1, 1, 1, length} : Extents{1, 1, length, 1}));
  for (int run = 0; run < 2; ++run) {
    if (transA && m != 1) {
      ASSERT_FALSE(small.run());
      continue;
    }
    ASSERT_TRUE(small.run());
    const std::vector<float> output = small.values("y");
    for (int32_t i = 0; i < length; ++i) {
      const int32_t row = n != 1 ? 0 : i;
      const int32_t column = n != 1 ? i : 0;
      double sum = bias[static_cast<size_t>(i)];
      double magnitude = std::abs(sum);
      for (int32_t j = 0; j < k; ++j) {
        const int32_t inA = transA ? j * m + row : row * k + j;
        const int32_t inB = transB ? column * k + j : j * n + column;
        const double term =
            double{a[static_cast<size_t>(inA)]} * double{b[static_cast<size_t>(inB)]};
        sum += term;
        magnitude += std::abs(term);
      }
      // k products and sums, and those of up to eight lanes.
      ASSERT_NEAR(output[static_cast<size_t>(i)], sum, (k + 10) * unitRoundoff * magnitude)
          << "run " << run << " value " << i;
    }
  }
}

TEST(Gemm, multipliesMatrixAndVector) {
  TracedRandom random;
  for (int i = 0; i < caseCount(600); ++i) {
    const bool isRow = random.chance(0.5);
    const Product g = {isRow ? 1 : random.between(1, 40),
                       random.between(1, 40),
                       isRow ? random.between(1, 40) : 1,
                       random.chance(0.4),
                       random.chance(0.5),
                       random.between(0, 1),
                       random.between(0, 1)};
    const Processor processor(random.chance(0.5));
    SCOPED_TRACE(testing::Message()
                 << "m " << g.m << " k " << g.k << " n " << g.n << " transposed " << g.transA
                 << g.transB << " layouts " << g.layoutA << g.layoutB);
    checkProduct(g, random);
    if (HasFatalFailure())
      return;
  }
}

TEST(Gemm, refusesWhatItCannotMultiply) {
  const struct {
    const char* what;
    Extents input;
    Extents matrix;
    int32_t biasCount;
    const char* weight;
  } cases[] = {{"two matrices", {1, 1, 3, 4}, {1, 1, 4, 6}, 6, "matrix"},
               {"a matrix with too few rows", {1, 1, 1, 4}, {1, 1, 3, 6}, 6, "matrix"},
               {"a short bias", {1, 1, 1, 4}, {1, 1, 4, 6}, 5, "matrix"},
               {"no matrix", {1, 1, 1, 4}, {1, 1, 4, 6}, 6, "unknown"},
               {"an empty input", {1, 1, 1, 0}, {1, 1, 4, 6}, 6, "matrix"}};
  for (const auto& c : cases) {
    SmallNet small;
    small.addInput("x", c.input, std::vector<float>(c.input.count()));
    small.addConstant("matrix", c.matrix, std::vector<float>(c.matrix.count()), 0);
    small.addConstant("bias", {1, 1, 1, c.biasCount}, std::vector<float>(6), 0);
    small.addLayer({.type = "Gemm", .io = {"x", "y"}, .weights = {c.weight, "bias"}});
    EXPECT_FALSE(small.reshape()) << c.what;
    EXPECT_FALSE(small.run()) << c.what;
  }
}

}  // namespace
}  // namespace TavroRTC::FDModule
