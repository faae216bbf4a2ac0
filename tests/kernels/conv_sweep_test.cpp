// Every kernel of swept_kernels.cpp through the sweep, and the sweep's own test: kernels that are
// broken on purpose, each of which it must catch for the right reason.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <span>
#include <string>
#include <utility>

#include "engine/cpu_info.h"
#include "engine/simd/conv_kernels.h"
#include "tests/kernels/conv_sweep.h"
#include "tests/support/sweep.h"

namespace TavroRTC::FDModule {
namespace {

using namespace tavro::test;

class ConvSweep : public testing::TestWithParam<SweptKernel> {};

TEST_P(ConvSweep, matchesBothReferences) {
  if (GetParam().needs == Needs::avxAndFma && !cpuInfo().hasAvxAndFma())
    GTEST_SKIP() << "needs AVX and FMA";
  EXPECT_TRUE(sweepKernel(GetParam(), caseCount(200)));
}

INSTANTIATE_TEST_SUITE_P(AllKernels, ConvSweep, testing::ValuesIn(sweptKernels()),
                         [](const testing::TestParamInfo<SweptKernel>& swept) {
                           return std::string(swept.param.kernel->name);
                         });

// --- Broken kernels ---

constexpr const ConvKernel& sound = simd::convSseScalar;

std::span<float> outputOf(const ConvProblem& p) {
  return {p.output, static_cast<size_t>(p.outputH) * static_cast<size_t>(p.outputW) *
                        static_cast<size_t>(p.outputC)};
}

template <typename Change>
void changeOutput(const ConvProblem& p, Change change) {
  std::ranges::transform(outputOf(p), p.output, change);
}

volatile float sink;

constexpr const char* differs = "in the kernel's order";
constexpr const char* stops = nullptr;  // the whole program does

// What the sound kernel does, but for another problem, with something done behind it, or by another
// rule than it should.
struct Broken {
  const char* what;
  const char* caughtBy;  // a part of the failure's text
  void (*change)(ConvProblem& p) = [](ConvProblem&) {};
  void (*spoil)(const ConvProblem& p) = [](const ConvProblem&) {};
  SumRule rule = {};
};

const Broken brokenKernels[] = {
    {.what = "ignores the bias",
     .caughtBy = differs,
     .change = [](ConvProblem& p) { p.bias = nullptr; }},
    {.what = "takes the padding from the other side",
     .caughtBy = differs,
     .change = [](ConvProblem& p) { std::swap(p.padLeft, p.padRight); }},
    {.what = "steps over rows as if they weren't dilated",
     .caughtBy = differs,
     .change = [](ConvProblem& p) { p.dilationH = 1; }},
    {.what = "skips the last column of an odd width",
     .caughtBy = differs,
     .spoil =
         [](const ConvProblem& p) {
           if (p.outputW % 2 == 1)
             outputOf(p).back() = 0;
         }},
    {.what = "fuses what it says it rounds twice",
     .caughtBy = differs,
     .rule = {.arithmetic = Arithmetic::fused}},
    {.what = "takes the channels first",
     .caughtBy = differs,
     .rule = {.sequence = Sequence::channelsThenTaps}},
    {.what = "takes denormal numbers for 0",
     .caughtBy = differs,
     .spoil =
         [](const ConvProblem& p) {
           changeOutput(p, [](float x) {
             return std::fpclassify(x) == FP_SUBNORMAL ? std::copysign(0.0F, x) : x;
           });
         }},
    {.what = "loses the sign of 0",
     .caughtBy = differs,
     .spoil = [](const ConvProblem& p) { changeOutput(p, [](float x) { return x + 0.0F; }); }},
    {.what = "loses what is not a number",
     .caughtBy = differs,
     .spoil =
         [](const ConvProblem& p) {
           changeOutput(p, [](float x) { return std::isnan(x) ? 0.0F : x; });
         }},
    {.what = "overflows early",
     .caughtBy = differs,
     .spoil =
         [](const ConvProblem& p) {
           changeOutput(p, [](float x) { return x > 1e33F ? INFINITY : x; });
         }},
    {.what = "changes its input",
     .caughtBy = "changed its operands",
     .spoil = [](const ConvProblem& p) { const_cast<float*>(p.input)[0] += 1; }},
    {.what = "writes in front of its output",
     .caughtBy = "wrote outside the output",
     .spoil = [](const ConvProblem& p) { p.output[-1] = 0; }},
    {.what = "writes behind whole blocks",
     .caughtBy = "wrote behind the output",
     .spoil = [](const ConvProblem& p) { *outputOf(p).end() = 0; }},
    {.what = "writes behind the spare room",
     .caughtBy = stops,
     .spoil = [](const ConvProblem& p) { outputOf(p).end()[16] = 0; }},
    {.what = "reads in front of its input",
     .caughtBy = stops,
     .spoil = [](const ConvProblem& p) { sink = p.input[-1]; }},
    {.what = "reads behind its input",
     .caughtBy = stops,
     .spoil = [](const ConvProblem& p) { sink = p.input[p.inputH * p.inputW * p.inputC]; }},
};

TEST(ConvSweepItself, catchesBrokenKernels) {
  static const Broken* broken;  // a kernel is plain functions
  ConvKernel kernel = sound;
  kernel.run = [](const ConvProblem& p) {
    ConvProblem changed = p;
    broken->change(changed);
    const bool done = sound.run(changed);
    broken->spoil(p);
    return done;
  };
  const SweptKernel swept = {&kernel, [](Lead&) {},
                             [](const ConvProblem&, int32_t) { return broken->rule; }};
  for (const Broken& each : brokenKernels) {
    broken = &each;
    expectCaught(each.what, each.caughtBy, [&swept] { return sweepKernel(swept, 400); });
  }
}

}  // namespace
}  // namespace TavroRTC::FDModule
