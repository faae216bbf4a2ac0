// Convolution layers as a net runs them: made from rows, with any geometry, followed by any
// activation, on a processor with and without AVX and FMA. A layer must be right or refuse.

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <utility>
#include <vector>

#include "engine/weight_packing.h"
#include "tests/kernels/conv_reference.h"
#include "tests/kernels/small_net.h"
#include "tests/kernels/swept_kernels.h"
#include "tests/support/sweep.h"
#include "tests/support/traced_random.h"

namespace TavroRTC::FDModule {
namespace {

using namespace tavro::test;

constexpr int64_t largestCase = 200'000;  // terms of the whole output

// A layer's sizes, and what a row tells besides.
struct LayerCase {
  ConvProblem sizes;
  bool isDepthwise = false;
  bool isPicture = false;
  std::vector<float> input;
  std::vector<uint8_t> bytes;
  std::vector<float> weights;                 // output channel, ky, kx, input channel
  std::vector<float> bias;                    // empty: the row names none
  int32_t biasLayout = layout::channelsLast;  // lent as it is, or repacked first
};

// Sizes that any of the kernels is made for, more or less.
LayerCase drawCase(Random& random) {
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
  c.input = drawFloats(inputExtents(p).count(), random);
  c.weights = drawFloats(weightExtents(p).count(), random);
  if (random.chance(0.7))
    c.bias = drawFloats(static_cast<size_t>(p.outputC), random);
  if (random.chance(0.5))
    c.biasLayout = layout::channelsFirst;
  c.isPicture = random.chance(p.inputC == 3 || p.inputC == 1 ? 0.5 : 0.05);
  if (c.isPicture)
    for (float& value : c.input) {
      const uint8_t byte = c.bytes.emplace_back(random.byte());
      value = (static_cast<float>(byte) - 127.0F) * (1.0F / 128);
    }
  p.activation = {random.between(0, 6), random.real(0, 1), random.real(-1, 1)};
  return c;
}

// What a layer may refuse; everything else must be computed.
bool mayRefuse(const LayerCase& c) {
  const ConvProblem& p = c.sizes;
  if (c.isPicture)  // only the kernels of a first layer read bytes
    return c.isDepthwise || !p.isKernel(3, 3) || !p.isStride(2, 2) || p.isDilated() ||
           p.padLeft != 1 || p.padTop != 1 || (p.inputC != 1 && p.inputC != 3) ||
           p.outputC % 4 != 0 || p.outputW < 4 || 2 * p.outputW > p.inputW ||
           2 * p.outputH > p.inputH;
  if (!c.isDepthwise)
    return false;
  if (p.group == p.outputC)
    return p.inputC != p.outputC || p.isDilated();
  return p.outputC / p.group % 4 != 0;
}

// The layer and an activation behind it, which the layer may merge.
void build(SmallNet& small, const LayerCase& c) {
  const ConvProblem& p = c.sizes;
  if (c.isPicture) {
    Tensor& picture = small.addPicture("x", inputExtents(p), c.bytes);
    picture.mean[0] = 127;
    picture.scale[0] = 1.0F / 128;
  } else {
    small.addInput("x", inputExtents(p), c.input);
  }
  const auto [n, h, w, channels] = weightExtents(p);
  std::vector<float> channelsFirst(c.weights.size());
  packWeights(c.weights.data(), channelsFirst.data(), {n, h, w, channels}, layout::channelsLast,
              layout::channelsFirst);
  small.addConstant("weight", weightExtents(p), channelsFirst);
  if (!c.bias.empty())
    small.addConstant("bias", {1, 1, 1, p.outputC}, c.bias, c.biasLayout);
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

// The activations that no kernel merges change slowly enough for the bound of their argument, but
// for what the library's functions add.
BoundedValue withActivation(BoundedValue sum, int32_t kind) {
  constexpr double libraryError = 1e-6;
  if (kind == 4)
    return {std::tanh(sum.value), sum.error + libraryError};
  if (kind == 5)
    return {1 / (1 + std::exp(-sum.value)), sum.error + libraryError};
  return sum;
}

void checkOutput(const LayerCase& c, const std::vector<float>& output) {
  const ConvProblem& p = c.sizes;
  ASSERT_EQ(output.size(), outputExtents(p).count());
  const ConvOperands operands = {c.input.data(), c.weights.data(),
                                 c.bias.empty() ? nullptr : c.bias.data()};
  for (int32_t i = 0; std::cmp_less(i, output.size()); ++i) {
    const OutputPosition at = {i / p.outputC / p.outputW, i / p.outputC % p.outputW, i % p.outputC};
    const BoundedValue expected =
        withActivation(convolveInDouble(p, operands, at), p.activation.kind);
    ASSERT_NEAR(output[static_cast<size_t>(i)], expected.value, expected.error)
        << "y " << at.y << " x " << at.x << " channel " << at.channel;
  }
}

TEST(ConvLayer, computesOrRefusesAnyGeometry) {
  TracedRandom random;
  for (int i = 0; i < caseCount(4000); ++i) {
    const LayerCase c = drawCase(random);
    for (const bool avxAndFma : availableProcessors()) {
      SCOPED_TRACE(testing::Message() << "case " << i << (avxAndFma ? " with" : " without")
                                      << " AVX and FMA, " << (c.isDepthwise ? "depthwise" : "dense")
                                      << (c.isPicture ? ", picture: " : ": ") << c.sizes);
      const Processor processor(avxAndFma);
      SmallNet small;
      build(small, c);
      ASSERT_TRUE(small.reshape());
      for (int run = 0; run < 2; ++run) {  // the weights are packed in the first
        if (small.run())
          checkOutput(c, small.values("y"));
        else
          ASSERT_TRUE(mayRefuse(c));
        if (HasFatalFailure())
          return;
      }
    }
  }
}

// A 3x3 convolution with padding 1 that works, and what one change makes of it.
struct Row {
  int32_t kernel = 3;
  int32_t padding = 1;
  int32_t stride = 1;
  Extents input = {1, 5, 5, 2};
  Extents weight = {2, 3, 3, 2};
  int32_t biasCount = 2;
  int32_t group = 1;
  std::vector<const char*> io = {"x", "y"};
  std::vector<const char*> weights = {"weight", "bias"};
};

TEST(ConvLayer, refusesRowsThatDoNotFitTheirTensors) {
  const struct {
    const char* what;
    Row row;
    bool isRight = false;
  } cases[] = {
      {"as it should be", {}, true},
      {"no stride", {.stride = 0}},
      {"negative padding", {.padding = -1}},
      {"a stride past all sizes", {.stride = 1 << 30}},
      {"a window larger than the image", {.padding = 0, .input = {1, 2, 5, 2}}},
      {"another kernel size than the weight", {.weight = {2, 3, 1, 2}}},
      {"other input channels than the weight", {.weight = {2, 3, 3, 3}}},
      {"two pictures", {.input = {2, 5, 5, 2}}},
      {"a short bias", {.biasCount = 1}},
      {"no weight", {.weights = {"missing"}}},
      {"no output", {.io = {"x"}}},
      {"an output that is the input", {.io = {"x", "x"}}},
      {"an empty input", {.io = {"none", "y"}}},
      {"groups that don't divide the channels", {.group = 3}},
      {"a negative group count", {.group = -1}},
      {"2^32 output values", {.kernel = 1, .padding = 32768, .weight = {2, 1, 1, 2}}},
      {"no input channels", {.input = {1, 5, 5, 0}}},
  };
  for (const auto& c : cases)
    for (const char* type : {"Conv", "DepthwiseConv"}) {
      if (c.row.group != 1 && std::string(type) == "Conv")
        continue;  // which knows no groups
      SmallNet small;
      small.addInput("x", c.row.input, std::vector<float>(c.row.input.count(), 1));
      small.addConstant("weight", c.row.weight, std::vector<float>(c.row.weight.count(), 1));
      small.addConstant("bias", {1, 1, 1, c.row.biasCount}, std::vector<float>(2));
      const int32_t p = c.row.padding;
      small.addLayer({.type = type,
                      .io = c.row.io,
                      .ints = {c.row.kernel, c.row.kernel, p, p, p, p, c.row.stride, c.row.stride,
                               1, 1, c.row.group},
                      .weights = c.row.weights});
      const bool isRight = c.isRight && std::string(type) == "Conv";  // two channels in one group
      EXPECT_EQ(small.compute(), isRight) << type << ": " << c.what;
    }
}

}  // namespace
}  // namespace TavroRTC::FDModule
