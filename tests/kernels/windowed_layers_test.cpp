// The layers with a window as a net runs them, with any geometry: convolutions of small whole
// numbers, which are exact in whatever order they are summed up, with and without AVX and FMA;
// pooling in its stated order, bit for bit.

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include "engine/simd/layers.h"
#include "engine/weight_packing.h"
#include "tests/kernels/conv_reference.h"
#include "tests/kernels/small_net.h"
#include "tests/kernels/swept_kernels.h"
#include "tests/support/random.h"
#include "tests/support/scarce_memory.h"
#include "tests/support/sweep.h"

namespace TavroRTC::FDModule {
namespace {

using namespace tavro::test;

// --- Conv, DepthwiseConv ---

struct LayerCase {
  ConvProblem sizes;
  bool isDepthwise = false;
  std::vector<float> input;
  std::vector<float> weights;  // output channel, ky, kx, input channel
  std::vector<float> bias;     // empty: the row names none
};

// Sizes that any of the kernels is made for, more or less.
LayerCase drawCase(Random& random) {
  constexpr int64_t largestCase = 200'000;  // terms of the whole output
  LayerCase c;
  ConvProblem& p = c.sizes;
  do {
    p = drawGeometry(random);
    Lead lead(p, random);
    const auto kernels = sweptKernels();
    kernels[static_cast<size_t>(lead.between(0, static_cast<int32_t>(kernels.size()) - 1))].lead(
        lead);
    c.isDepthwise = p.group != 1 || random.chance(0.05);
  } while (!deriveOutputSize(p, Overhang::allowed) || termCount(p) > largestCase);
  const auto drawWhole = [&random](size_t count) {
    std::vector<float> values(count);
    for (float& value : values)
      value = static_cast<float>(random.between(-8, 8));
    return values;
  };
  c.input = drawWhole(inputExtents(p).count());
  c.weights = drawWhole(weightExtents(p).count());
  if (random.chance(0.7))
    c.bias = drawWhole(static_cast<size_t>(p.outputC));
  constexpr int32_t kinds[] = {0, 1, 2, 6};
  p.activation = {kinds[random.between(0, 3)], 5, 0.5F};
  return c;
}

// What a layer may refuse; everything else must be computed.
bool mayRefuse(const LayerCase& c) {
  const ConvProblem& p = c.sizes;
  return c.isDepthwise &&
         (p.group == p.outputC ? p.inputC != p.outputC : p.outputC / p.group % 4 != 0);
}

// The layer and an activation behind it, which the layer may merge.
void build(SmallNet& small, const LayerCase& c) {
  const ConvProblem& p = c.sizes;
  small.addInput("x", inputExtents(p), c.input);
  const auto [n, h, w, channels] = weightExtents(p);
  std::vector<float> channelsFirst(c.weights.size());
  packWeights(c.weights.data(), channelsFirst.data(), {n, h, w, channels}, layout::channelsLast,
              layout::channelsFirst);
  small.addConstant("weight", weightExtents(p), channelsFirst);
  if (!c.bias.empty())
    small.addConstant("bias", {1, 1, 1, p.outputC}, c.bias);
  small.addLayer({.type = c.isDepthwise ? "DepthwiseConv" : "Conv",
                  .io = {"x", "sum"},
                  .ints = {p.kernelW, p.kernelH, p.padLeft, p.padRight, p.padTop, p.padBottom,
                           p.strideW, p.strideH, p.dilationW, p.dilationH, p.group},
                  .weights = {"weight", "bias"}});
  small.addLayer(
      {.type = "Activation",
       .io = {"sum", "y"},
       .ints = {p.activation.kind},
       .floats = {p.activation.kind == 2 ? p.activation.clipMax : p.activation.leakSlope}});
  small.net.env->rewriteGraph(&small.net);
}

std::vector<float> convolve(const LayerCase& c) {
  ConvProblem p = c.sizes;
  if (c.isDepthwise && p.group == p.outputC)
    p.dilationH = p.dilationW = 1;  // such a filter's taps lie side by side
  const ConvOperands operands = {c.input.data(), c.weights.data(),
                                 c.bias.empty() ? nullptr : c.bias.data()};
  return convolveInOrder(p, operands, [](const ConvProblem&, int32_t) { return SumRule{}; });
}

TEST(ConvLayer, ComputesOrRefusesAnyGeometry) {
  TracedRandom random;
  for (int i = 0; i < caseCount(600); ++i) {
    const LayerCase c = drawCase(random);
    const std::vector<float> expected = convolve(c);
    for (const bool avxAndFma : availableProcessors()) {
      SCOPED_TRACE(testing::Message()
                   << "case " << i << (avxAndFma ? " with" : " without") << " AVX and FMA, "
                   << (c.isDepthwise ? "depthwise" : "dense") << ": " << c.sizes);
      const Processor processor(avxAndFma);
      SmallNet small;
      build(small, c);
      ASSERT_TRUE(small.reshape());
      for (int run = 0; run < 2; ++run) {  // the weights are packed in the first
        if (small.run())
          ASSERT_EQ(small.values("y"), expected);
        else
          ASSERT_TRUE(mayRefuse(c));
      }
    }
  }
}

// Whatever allocation fails in the first pass, the next one computes with the kernel of before.
TEST(ConvLayer, KeepsItsKernelIfMemoryIsShortOnce) {
  TracedRandom random;
  const Extents image = {1, 16, 16, 3};
  const std::vector<float> weights = drawFloats(16 * 27, random);
  const std::vector<float> biases = drawFloats(16, random);
  std::vector<uint8_t> bytes(image.count());
  fill(bytes, Content::random, random);
  const auto compute = [&](int64_t allowed, bool& failed) {
    SmallNet small;
    small.addPicture("x", image, bytes);
    const Tensor& weight = small.addConstant("weight", {16, 3, 3, 3}, weights);
    small.addConstant("bias", {1, 1, 1, 16}, biases);
    small.addLayer({.type = "Conv",
                    .io = {"x", "y"},
                    .ints = {3, 3, 1, 1, 1, 1, 2, 2, 1, 1},
                    .weights = {"weight", "bias"}});
    EXPECT_TRUE(small.reshape());
    {
      const ScarceMemory scarce(allowed, ScarceMemory::Failing::once);
      const bool done = small.run();
      failed = ScarceMemory::hasFailed();
      EXPECT_NE(done, failed);
    }
    EXPECT_TRUE(small.run());
    return std::pair(small.values("y"), weight.layout);
  };
  bool failed = false;
  const auto expected = compute(1000, failed);
  ASSERT_FALSE(failed);
  int64_t allowed = 0;
  do
    EXPECT_EQ(compute(allowed++, failed), expected) << "after " << allowed - 1 << " allocations";
  while (failed);
  EXPECT_GT(allowed, 3);
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

float reduceWindow(const ConvProblem& p, bool isMean, const std::vector<float>& input, int32_t y,
                   int32_t x, int32_t channel) {
  int32_t count = 0;
  float sum = 0;
  float largest = -std::numeric_limits<float>::max();
  for (int32_t ky = 0; ky < p.kernelH; ++ky)
    for (int32_t kx = 0; kx < p.kernelW; ++kx) {
      const int32_t row = y * p.strideH - p.padTop + ky * p.dilationH;
      const int32_t column = x * p.strideW - p.padLeft + kx * p.dilationW;
      if (row < 0 || row >= p.inputH || column < 0 || column >= p.inputW)
        continue;
      const int32_t index = (row * p.inputW + column) * p.inputC + channel;
      const float value = input[static_cast<size_t>(index)];
      ++count;
      sum += value;
      largest = std::max(largest, value);
    }
  return isMean ? sum * (1.0F / static_cast<float>(count)) : largest;
}

TEST(Pooling, ReducesTheWindowsThatLieInTheImage) {
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
    SmallNet small;
    std::vector<float> input = drawFloats(inputExtents(p).count(), random);
    if (random.chance(0.3))
      for (float& value : input)
        value -= 5;
    small.addInput("x", inputExtents(p), input);
    const auto layer = makePooling(isMean ? "AveragePool" : "MaxPool", p, small);
    ASSERT_TRUE(layer->reshape(small.net.env) && layer->forward(small.net.env));
    std::vector<float> expected;
    for (int32_t y = 0; y < p.outputH; ++y)
      for (int32_t x = 0; x < p.outputW; ++x)
        for (int32_t channel = 0; channel < p.inputC; ++channel)
          expected.push_back(reduceWindow(p, isMean, input, y, x, channel));
    ASSERT_TRUE(sameFloats(small.values("y"), expected)) << "case " << i << ": " << p;
  }
}

TEST(Pooling, GlobalMeanCoversTheImage) {
  SmallNet small;
  const Extents image = {1, 5, 7, 3};
  std::vector<float> input(image.count());
  std::iota(input.begin(), input.end(), 0.0F);
  small.addInput("x", image, input);
  ConvProblem p;
  p.strideW = p.padTop = 2;
  const auto layer = makePooling("GlobalAveragePool", p, small);
  ASSERT_TRUE(layer->reshape(small.net.env) && layer->forward(small.net.env));
  EXPECT_EQ(small.values("y"), (std::vector<float>{51, 52, 53}));
  EXPECT_EQ(layer->describe(), "5x7_s1x1_3x1x1x3");
}

}  // namespace
}  // namespace TavroRTC::FDModule
