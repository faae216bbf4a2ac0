#include "engine/simd/conv_selection.h"

#include "engine/cpu_info.h"
#include "engine/simd/conv_kernels.h"

namespace TavroRTC::FDModule::simd {
namespace {

using P = const ConvProblem&;
using Env = const core::RunEnv&;

bool always(Env /*env*/) {
  return true;
}
bool inFloats(Env env) {
  return !env.halfPrecision;
}
bool besideWideKernels(Env env) {
  return !env.halfPrecision && cpuInfo().runsAvxAndFma();
}

// --- Dense ---

bool isFirstLayer(P p, int32_t channels) {
  return !p.isDilated() && p.isKernel(3, 3) && p.isStride(2, 2) && p.padLeft == 1 &&
         p.inputC == channels;
}
bool is1x1(P p, int32_t leastOutputs) {
  return !p.isDilated() && p.isKernel(1, 1) && p.outputC >= leastOutputs;
}

// The largest block that divides them is 8.
constexpr bool fillBlocksOf8(int32_t channels) {
  return channels % 8 == 0 && channels % 16 != 0;
}

constexpr ConvChoice pairToSingle[] = {
    {[](P p) { return p.outputC == 1 && p.inputC == 2; }, &convSseSingle},
};

// Whether a block of 8 or of 4 is faster for 8 channels is a close call, which processors with AVX
// decide the other way.
constexpr ConvChoice shortBlocks[] = {
    {[](P p) { return p.isDilated() && fillBlocksOf8(p.outputC); }, &convSseDilated_4x4},
    {[](P p) { return isFirstLayer(p, 3); }, &convSse3x3s2c3_4x4},
    {[](P p) { return isFirstLayer(p, 1); }, &convSse3x3s2c1_4x4},
    {[](P p) { return is1x1(p, 16); }, &convSse1x1_8x4},
    {[](P p) { return is1x1(p, 8); }, &convSse1x1_4x4},
    {[](P p) { return !p.isDilated() && fillBlocksOf8(p.outputC); }, &convSseDirect_4x4},
};

// The last row takes everything, whatever limits the kernels above have.
constexpr ConvChoice denseChoices[] = {
    {[](P p) { return p.isDilated() && p.outputC % 8 == 0; }, &convSseDilated_8x4},
    {[](P p) { return p.isDilated() && p.outputC % 4 == 0; }, &convSseDilated_4x4},
    {[](P p) { return p.isDilated(); }, &convSseScalar},
    {[](P p) { return isFirstLayer(p, 3); }, &convSse3x3s2c3_4x4},
    {[](P p) { return isFirstLayer(p, 1); }, &convSse3x3s2c1_4x4},
    {[](P p) { return p.outputC == 1; }, &convSseSingle},
    {[](P p) { return is1x1(p, 8); }, &convSse1x1_8x4},
    {[](P p) { return is1x1(p, 4); }, &convSse1x1_4x4},
    {[](P p) { return p.outputC % 8 == 0; }, &convSseDirect_8x4},
    {[](P p) { return p.outputC >= 2; }, &convSseDirect_4x4},
    {[](P) { return true; }, &convSseScalar},
};

constexpr ConvLevel denseLevels[] = {
    {inFloats, pairToSingle},
    {besideWideKernels, shortBlocks},
    {always, denseChoices},
};

// --- In groups ---

bool isDepthwise(P p) {
  return p.group == p.outputC;
}
int32_t groupOutputs(P p) {
  return p.outputC / p.group;
}

constexpr ConvChoice shortGroupBlocks[] = {
    {[](P p) { return isDepthwise(p) && fillBlocksOf8(p.outputC); }, &dwConvSse_4x4},
    {[](P p) { return !isDepthwise(p) && fillBlocksOf8(groupOutputs(p)); }, &groupConvSse_4x4},
};

constexpr ConvChoice groupChoices[] = {
    {[](P p) { return isDepthwise(p) && p.outputC % 8 == 0; }, &dwConvSse_8x4},
    {[](P p) { return isDepthwise(p) && p.outputC % 4 == 0; }, &dwConvSse_4x4},
    {[](P p) { return isDepthwise(p); }, &dwConvSseScalar},
    {[](P p) { return !isDepthwise(p) && groupOutputs(p) % 8 == 0; }, &groupConvSse_8x4},
    {[](P p) { return !isDepthwise(p) && groupOutputs(p) % 4 == 0; }, &groupConvSse_4x4},
};

constexpr ConvLevel groupLevels[] = {
    {besideWideKernels, shortGroupBlocks},
    {always, groupChoices},
};

}  // namespace

const ConvKernel* selectKernel(std::span<const ConvLevel> levels, const ConvProblem& problem,
                               const core::RunEnv& env) {
  for (const ConvLevel& level : levels)
    if (level.isAvailable(env))
      for (const ConvChoice& choice : level.choices)
        if (choice.applies(problem) && choice.kernel->serves(problem))
          return choice.kernel;
  return nullptr;
}

const ConvKernel* selectConvKernel(const ConvProblem& problem, const core::RunEnv& env) {
  return selectKernel(denseLevels, problem, env);
}

const ConvKernel* selectDepthwiseKernel(const ConvProblem& problem, const core::RunEnv& env) {
  return selectKernel(groupLevels, problem, env);
}

}  // namespace TavroRTC::FDModule::simd
