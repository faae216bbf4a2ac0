// Which kernel a convolution takes, on a processor with AVX and FMA and on one without: for the
// rows of the model; and that it takes one that serves, whatever the sizes, and leaves none out.

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "impl_x86/x86_conv.h"
#include "tests/kernels/conv_reference.h"
#include "tests/kernels/small_net.h"
#include "tests/kernels/swept_kernels.h"
#include "tests/support/random.h"

namespace TavroRTC::FDModule {
namespace {

using namespace tavro::test;

const ConvKernel* selectDense(const ConvProblem& p) {
  const QuietEnv env;
  return x86::selectConvKernel(p, env);
}

const ConvKernel* selectGrouped(const ConvProblem& p) {
  const QuietEnv env;
  return x86::selectDepthwiseKernel(p, env);
}

std::string_view nameOf(const ConvKernel* kernel) {
  return kernel != nullptr ? kernel->name : "none";
}

// --- The model ---

ConvProblem problemOf(const core::Conv& layer) {
  ConvProblem p = layer.problem();
  p.bytes = layer.inputs[0]->byteData;
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
TEST(ConvSelection, ModelTakesTheseKernels) {
  for (const bool avxAndFma : availableProcessors()) {
    const Processor processor(avxAndFma);
    SmallNet small;
    small.net.addConstants(modelTensors());
    small.net.addLayers(modelLayers());
    small.net.env->rewriteGraph(&small.net);
    const Extents image = {1, 192, 192, 3};
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
        const ConvProblem p = problemOf(layer);
        const bool isGrouped = dynamic_cast<const core::DepthwiseConv*>(&layer) != nullptr;
        const ConvKernel* kernel = isGrouped ? selectGrouped(p) : selectDense(p);
        EXPECT_EQ(nameOf(kernel), avxAndFma ? row.withAvxAndFma : row.without);
        EXPECT_TRUE(kernel != nullptr && layer.weight->layout == kernel->weightLayout);
      }
    EXPECT_EQ(found, convolutions.size());
  }
}

// --- Any sizes ---

TEST(ConvSelection, TakesKernelsThatServeAndEveryOneSometimes) {
  TracedRandom random;
  const uint8_t picture = 0;
  std::set<const ConvKernel*> taken;
  for (int i = 0; i < 1000; ++i)
    for (const SweptKernel& swept : sweptKernels()) {
      ConvProblem p = drawGeometry(random);
      p.inputH = p.inputW = random.between(13, 60);
      p.bytes = random.chance(0.3) ? &picture : nullptr;
      Lead lead(p, random);
      swept.lead(lead);
      if (!deriveOutputSize(p))
        continue;
      const Processor processor(random.chance(0.7));
      const ConvKernel* grouped = selectGrouped(p);
      EXPECT_TRUE(grouped == nullptr || grouped->serves(p)) << nameOf(grouped) << ": " << p;
      p.group = 1;
      const ConvKernel* dense = selectDense(p);
      ASSERT_TRUE(dense != nullptr && dense->serves(p)) << nameOf(dense) << ": " << p;
      taken.insert({grouped, dense});
    }
  for (const SweptKernel& swept : sweptKernels())
    EXPECT_TRUE(taken.contains(swept.kernel)) << swept.kernel->name;
}

}  // namespace
}  // namespace TavroRTC::FDModule
