// Which kernel a convolution takes, on a processor with AVX and FMA and on one without: for the
// rows of the model, and at the limits of the kernels.

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "impl_x86/x86_conv.h"
#include "impl_x86/x86_depthwise_conv.h"
#include "tests/kernels/conv_reference.h"
#include "tests/kernels/print_conv_problem.h"
#include "tests/kernels/small_net.h"
#include "tests/support/random.h"

namespace TavroRTC::FDModule {
namespace {

using tavro::test::Processor;
using tavro::test::QuietEnv;
using tavro::test::Random;

const ConvKernel* selectDense(const ConvProblem& p) {
  const QuietEnv env;
  const ConvKernel* wide = x86::selectConvFma(p);
  return wide != nullptr ? wide : simd::selectConvKernel(p, env);
}

const ConvKernel* selectGrouped(const ConvProblem& p) {
  const QuietEnv env;
  const ConvKernel* wide = x86::selectDepthwiseFma(p);
  return wide != nullptr ? wide : simd::selectDepthwiseKernel(p, env);
}

std::string_view nameOf(const ConvKernel* kernel) {
  return kernel != nullptr ? kernel->name : "none";
}

// --- The model ---

ConvProblem problemOf(const core::Conv& layer) {
  ConvProblem p;
  p.kernelW = layer.kernelW;
  p.kernelH = layer.kernelH;
  p.padLeft = layer.padLeft;
  p.padRight = layer.padRight;
  p.padTop = layer.padTop;
  p.padBottom = layer.padBottom;
  p.strideW = layer.strideW;
  p.strideH = layer.strideH;
  p.dilationW = layer.dilationW;
  p.dilationH = layer.dilationH;
  const Tensor& input = *layer.inputs[0];
  p.inputH = input.h;
  p.inputW = input.w;
  p.inputC = input.c;
  p.bytes = input.byteData;
  const Tensor& output = *layer.outputs[0];
  p.outputH = output.h;
  p.outputW = output.w;
  p.outputC = output.c;
  return p;
}

struct ModelRow {
  std::vector<const char*> layers;
  std::string_view withAvxAndFma;
  std::string_view without;
};

const ModelRow modelRows[] = {
    {{"235"}, "conv3x3bytes_16x4", "convSse3x3s2c3_4x4"},
    {{"241", "247", "253", "259", "265", "271", "301", "299", "308", "314", "320", "326", "332"},
     "conv1x1_32x3",
     "convSse1x1_8x4"},
    {{"288", "281", "274", "345", "353"}, "convSse1x1_4x4", "convSse1x1_8x4"},
    {{"337"}, "conv1x1_16x4", "convSse1x1_8x4"},
    {{"341", "349", "357"}, "convSse1x1_4x4", "convSse1x1_4x4"},
    {{"290"}, "conv3x3s1_16x4", "convSseDirect_4x4"},
    {{"293", "283", "276"}, "conv3x3s1_16x4", "convSseDirect_8x4"},
    {{"296", "286", "279"}, "conv3x3dil_16x4", "convSseDilated_8x4"},
    {{"238"}, "dwConv3x3s1_16x5", "dwConvSse_8x4"},
    {{"250", "262", "268", "339", "335", "311", "317", "347", "343", "329", "355", "351", "244",
      "256", "305", "323"},
     "dwConv3x3_16x4",
     "dwConvSse_8x4"},
};

// The weights' layout after a run shows that forward took the kernel, too.
TEST(ConvSelection, modelTakesTheseKernels) {
  for (const bool avxAndFma : tavro::test::availableProcessors()) {
    const Processor processor(avxAndFma);
    tavro::test::SmallNet small;
    small.net.addConstants(modelTensors());
    small.net.addLayers(modelLayers());
    small.net.env->rewriteGraph(&small.net);
    const tavro::test::Extents image = {1, 192, 192, 3};
    small.addPicture(modelInput, image, std::vector<uint8_t>(image.count(), 100));
    ASSERT_TRUE(small.compute());

    std::map<std::string, const core::Conv*> convolutions;
    for (const Layer* layer : small.net.layers)
      if (const auto* convolution = dynamic_cast<const core::Conv*>(layer))
        convolutions[layer->name] = convolution;
    size_t found = 0;
    for (const ModelRow& row : modelRows)
      for (const char* name : row.layers) {
        SCOPED_TRACE(testing::Message() << name << (avxAndFma ? " with" : " without") << " AVX");
        ASSERT_EQ(convolutions.count(name), 1U);
        ++found;
        const core::Conv& layer = *convolutions[name];
        ConvProblem p = problemOf(layer);
        const auto* grouped = dynamic_cast<const core::DepthwiseConv*>(&layer);
        if (grouped != nullptr)
          p.group = grouped->group;
        const ConvKernel* kernel = grouped != nullptr ? selectGrouped(p) : selectDense(p);
        EXPECT_EQ(nameOf(kernel), avxAndFma ? row.withAvxAndFma : row.without);
        EXPECT_TRUE(kernel != nullptr && layer.weight->layout == kernel->weightLayout);
      }
    EXPECT_EQ(found, convolutions.size());
  }
}

// --- The limits ---

const uint8_t picture[1] = {};

struct Sizes {
  int32_t kernel = 3;
  int32_t in = 8;
  int32_t out = 16;
  int32_t stride = 1;
  int32_t padding = -1;  // -1: such that stride 1 keeps the size
  int32_t dilation = 1;
  int32_t extent = 24;
  bool isPicture = false;
  int32_t strideH = 0;  // 0: as stride
  int32_t group = 1;
};

ConvProblem problemOf(const Sizes& sizes) {
  ConvProblem p;
  p.kernelW = p.kernelH = sizes.kernel;
  p.padLeft = p.padRight = p.padTop = p.padBottom =
      sizes.padding >= 0 ? sizes.padding : sizes.kernel / 2 * sizes.dilation;
  p.strideW = sizes.stride;
  p.strideH = sizes.strideH != 0 ? sizes.strideH : sizes.stride;
  p.dilationW = p.dilationH = sizes.dilation;
  p.group = sizes.group;
  p.inputH = p.inputW = sizes.extent;
  p.inputC = sizes.in;
  p.outputC = sizes.out;
  p.bytes = sizes.isPicture ? picture : nullptr;
  EXPECT_TRUE(tavro::test::deriveOutputSize(p));
  return p;
}

struct Limit {
  Sizes sizes;
  std::string_view withAvxAndFma;
  std::string_view without;
};

const Limit denseLimits[] = {
    // 1x1: whole blocks or one short one, from the widest down
    {{.kernel = 1, .out = 64}, "conv1x1_32x3", "convSse1x1_8x4"},
    {{.kernel = 1, .out = 96}, "conv1x1_32x3", "convSse1x1_8x4"},
    {{.kernel = 1, .out = 31}, "conv1x1_32x3", "convSse1x1_8x4"},
    {{.kernel = 1, .out = 25}, "conv1x1_32x3", "convSse1x1_8x4"},
    {{.kernel = 1, .out = 72}, "conv1x1_24x3", "convSse1x1_8x4"},
    {{.kernel = 1, .out = 24}, "conv1x1_24x3", "convSse1x1_8x4"},
    {{.kernel = 1, .out = 17}, "conv1x1_24x3", "convSse1x1_8x4"},
    {{.kernel = 1, .out = 80}, "conv1x1_16x4", "convSse1x1_8x4"},
    {{.kernel = 1, .out = 16}, "conv1x1_16x4", "convSse1x1_8x4"},
    {{.kernel = 1, .out = 9}, "conv1x1_16x4", "convSse1x1_8x4"},
    {{.kernel = 1, .out = 33}, "convSse1x1_8x4", "convSse1x1_8x4"},
    {{.kernel = 1, .out = 8}, "convSse1x1_4x4", "convSse1x1_8x4"},
    {{.kernel = 1, .out = 7}, "convSse1x1_4x4", "convSse1x1_4x4"},
    {{.kernel = 1, .out = 4}, "convSse1x1_4x4", "convSse1x1_4x4"},
    {{.kernel = 1, .out = 3}, "convSseDirect_4x4", "convSseDirect_4x4"},
    {{.kernel = 1, .out = 1}, "convSseSingle", "convSseSingle"},
    {{.kernel = 1, .in = 2, .out = 1}, "convSseSingle", "convSseSingle"},
    {{.kernel = 1, .out = 32, .stride = 2}, "convSse1x1_8x4", "convSse1x1_8x4"},
    {{.kernel = 1, .out = 32, .strideH = 2}, "convSse1x1_8x4", "convSse1x1_8x4"},
    {{.kernel = 1, .out = 32, .padding = 1}, "convSseDirect_8x4", "convSseDirect_8x4"},
    {{.kernel = 1, .dilation = 2}, "convSseDilated_8x4", "convSseDilated_8x4"},
    // 3x3, the first layer
    {{.in = 3, .stride = 2, .isPicture = true}, "conv3x3bytes_16x4", "convSse3x3s2c3_4x4"},
    {{.in = 1, .stride = 2, .isPicture = true}, "conv3x3bytes_16x4", "convSse3x3s2c1_4x4"},
    {{.in = 3, .out = 12, .stride = 2, .isPicture = true},
     "conv3x3bytes_16x4",
     "convSse3x3s2c3_4x4"},
    {{.in = 3, .out = 12, .stride = 2}, "convSse3x3s2c3_4x4", "convSse3x3s2c3_4x4"},
    {{.in = 3, .out = 10, .stride = 2}, "convSseDirect_4x4", "convSseDirect_4x4"},
    {{.in = 3, .stride = 2}, "conv3x3s2_16x4", "convSse3x3s2c3_4x4"},
    {{.in = 1, .stride = 2}, "conv3x3s2_16x4", "convSse3x3s2c1_4x4"},
    {{.in = 3, .stride = 2, .extent = 23}, "conv3x3s2_16x4", "convSseDirect_8x4"},
    // 3x3 in whole or short blocks
    {{.stride = 2}, "conv3x3s2_16x4", "convSseDirect_8x4"},
    {{.out = 48}, "conv3x3s1_24x3", "convSseDirect_8x4"},
    {{.out = 24}, "conv3x3s1_24x3", "convSseDirect_8x4"},
    {{.out = 17}, "conv3x3s1_24x3", "convSseDirect_4x4"},
    {{.out = 32}, "conv3x3s1_16x4", "convSseDirect_8x4"},
    {{.out = 9}, "conv3x3s1_16x4", "convSseDirect_4x4"},
    {{.extent = 3}, "convSseDirect_8x4", "convSseDirect_8x4"},
    {{.padding = 0}, "conv3x3dil_16x4", "convSseDirect_8x4"},
    {{.dilation = 2}, "conv3x3dil_16x4", "convSseDilated_8x4"},
    {{.out = 12, .dilation = 2}, "conv3x3dil_16x4", "convSseDilated_4x4"},
    {{.out = 9, .dilation = 2}, "conv3x3dil_16x4", "convSseScalar"},
    {{.out = 32, .stride = 2, .dilation = 2}, "convSseDilated_8x4", "convSseDilated_8x4"},
    // 3x3 in blocks of four
    {{.in = 3, .out = 1, .extent = 48}, "conv3x3single_48", "convSseSingle"},
    {{.in = 3, .out = 1, .extent = 47}, "convSseSingle", "convSseSingle"},
    {{.in = 4, .out = 1, .extent = 48}, "convSseSingle", "convSseSingle"},
    {{.out = 8}, "conv3x3s1_4x6", "convSseDirect_8x4"},
    {{.out = 5}, "conv3x3s1_4x6", "convSseDirect_4x4"},
    {{.out = 2}, "conv3x3s1_4x6", "convSseDirect_4x4"},
    {{.out = 8, .stride = 2}, "convSseDirect_4x4", "convSseDirect_8x4"},
    {{.out = 8, .dilation = 2}, "convSseDilated_4x4", "convSseDilated_8x4"},
    {{.out = 3, .stride = 2, .dilation = 2}, "conv3x3s2d2_4x6", "convSseScalar"},
    {{.out = 4, .stride = 2}, "conv3x3any_4x6", "convSseDirect_4x4"},
    {{.out = 4, .dilation = 3}, "conv3x3any_4x6", "convSseDilated_4x4"},
    // other windows
    {{.kernel = 5}, "convSseDirect_8x4", "convSseDirect_8x4"},
    {{.kernel = 5, .out = 8}, "convSseDirect_4x4", "convSseDirect_8x4"},
};

const Limit groupedLimits[] = {
    {{.in = 16, .extent = 56, .group = 16}, "dwConv3x3s1_16x5", "dwConvSse_8x4"},
    {{.in = 16, .extent = 55, .group = 16}, "dwConv3x3_16x4", "dwConvSse_8x4"},
    {{.in = 16, .stride = 2, .extent = 120, .group = 16}, "dwConv3x3_16x4", "dwConvSse_8x4"},
    {{.in = 16, .stride = 3, .group = 16}, "dwConvSse_8x4", "dwConvSse_8x4"},
    {{.in = 16, .padding = 0, .group = 16}, "dwConvSse_8x4", "dwConvSse_8x4"},
    {{.kernel = 5, .in = 16, .padding = 1, .group = 16}, "dwConvSse_8x4", "dwConvSse_8x4"},
    {{.in = 24, .out = 24, .group = 24}, "dwConvSse_4x4", "dwConvSse_8x4"},
    {{.in = 4, .out = 4, .group = 4}, "dwConvSse_4x4", "dwConvSse_4x4"},
    {{.in = 7, .out = 7, .group = 7}, "dwConvSseScalar", "dwConvSseScalar"},
    {{.in = 16, .dilation = 2, .group = 16}, "none", "none"},
    {{.in = 32, .group = 16}, "none", "none"},
    {{.in = 2, .out = 32, .group = 2}, "groupConvSse_8x4", "groupConvSse_8x4"},
    {{.out = 32, .group = 4}, "groupConvSse_4x4", "groupConvSse_8x4"},
    {{.in = 3, .out = 12, .group = 3}, "groupConvSse_4x4", "groupConvSse_4x4"},
    {{.in = 3, .out = 9, .group = 3}, "none", "none"},
};

TEST(ConvSelection, limitsLieWhereTheKernelsEnd) {
  for (const bool avxAndFma : {false, true}) {
    const Processor processor(avxAndFma);
    const auto expected = [&](const Limit& limit) {
      return avxAndFma ? limit.withAvxAndFma : limit.without;
    };
    for (const Limit& limit : denseLimits) {
      const ConvProblem p = problemOf(limit.sizes);
      EXPECT_EQ(nameOf(selectDense(p)), expected(limit)) << p;
    }
    for (const Limit& limit : groupedLimits) {
      const ConvProblem p = problemOf(limit.sizes);
      EXPECT_EQ(nameOf(selectGrouped(p)), expected(limit)) << p;
    }
  }
}

TEST(ConvSelection, selectedKernelAlwaysServes) {
  const uint64_t seed = tavro::test::baseSeed();
  SCOPED_TRACE(tavro::test::seedNote(seed));
  Random random(seed);
  for (int i = 0; i < tavro::test::caseCount(20'000); ++i) {
    const int32_t group = random.between(1, 4);
    ConvProblem p = problemOf(Sizes{.kernel = random.between(1, 5),
                                    .in = group * random.between(1, 5),
                                    .out = group * random.between(1, 16),
                                    .stride = random.between(1, 3),
                                    .padding = random.between(0, 3),
                                    .dilation = random.between(1, 3),
                                    .extent = random.between(13, 60),
                                    .isPicture = random.chance(0.3),
                                    .strideH = random.between(0, 3),
                                    .group = group});
    p.padRight = random.between(0, 3);
    p.padTop = random.between(0, 3);
    ASSERT_TRUE(tavro::test::deriveOutputSize(p));
    const Processor processor(random.chance(0.7));
    const ConvKernel* grouped = selectGrouped(p);
    EXPECT_TRUE(grouped == nullptr || grouped->serves(p)) << nameOf(grouped) << ": " << p;
    p.group = 1;
    const ConvKernel* dense = selectDense(p);
    EXPECT_TRUE(dense != nullptr && dense->serves(p)) << nameOf(dense) << ": " << p;
  }
}

}  // namespace
}  // namespace TavroRTC::FDModule
