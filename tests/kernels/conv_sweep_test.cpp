// Every kernel of swept_kernels.cpp through the sweep, and the sweep's own test: kernels that are
// broken on purpose, each of which it must catch for the right reason.

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <utility>
#include <vector>

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

size_t outputCount(const ConvProblem& p) {
  return static_cast<size_t>(p.outputH) * static_cast<size_t>(p.outputW) *
         static_cast<size_t>(p.outputC);
}

// The sound kernel, and `spoil` for each value of its output.
template <typename Spoil>
bool runAndSpoil(const ConvProblem& p, const Spoil& spoil) {
  const bool done = sound.run(p);
  for (size_t i = 0; i < outputCount(p); ++i)
    p.output[i] = spoil(p.output[i]);
  return done;
}

// The sound kernel for a problem that `change` has changed.
template <typename Change>
bool runChanged(ConvProblem p, const Change& change) {
  change(p);
  return sound.run(p);
}

volatile float sink;

struct Broken {
  const char* what;
  bool (*run)(const ConvProblem& p);
  const char* caughtBy;  // a part of the failure's text; null: the program is stopped
  SumRule rule = {};
};

const Broken brokenKernels[] = {
    {"ignores the bias",
     [](const ConvProblem& p) { return runChanged(p, [](ConvProblem& q) { q.bias = nullptr; }); },
     "in the kernel's order"},
    {"takes the padding from the other side",
     [](const ConvProblem& p) {
       return runChanged(p, [](ConvProblem& q) { std::swap(q.padLeft, q.padRight); });
     },
     "in the kernel's order"},
    {"steps over rows as if they weren't dilated",
     [](const ConvProblem& p) { return runChanged(p, [](ConvProblem& q) { q.dilationH = 1; }); },
     "in the kernel's order"},
    {"skips the last column",
     [](const ConvProblem& p) {
       const std::vector<float> before(p.output, p.output + outputCount(p));
       const bool done = sound.run(p);
       const auto row = static_cast<size_t>(p.outputW) * static_cast<size_t>(p.outputC);
       for (size_t end = row; end <= outputCount(p); end += row)
         for (size_t i = end - static_cast<size_t>(p.outputC); i < end; ++i)
           p.output[i] = before[i];
       return done;
     },
     "in the kernel's order"},
    {"leaves a value in an accumulator",
     [](const ConvProblem& p) {
       const bool done = sound.run(p);
       if (outputCount(p) > 1)
         p.output[outputCount(p) - 1] += p.output[0];
       return done;
     },
     "in the kernel's order"},
    {"fuses what it says it rounds twice",
     sound.run,
     "in the kernel's order",
     {.arithmetic = Arithmetic::fused}},
    {"takes the channels first",
     sound.run,
     "in the kernel's order",
     {.sequence = Sequence::channelsThenTaps}},
    {"takes denormal numbers for 0",
     [](const ConvProblem& p) {
       return runAndSpoil(p, [](float x) {
         return std::fpclassify(x) == FP_SUBNORMAL ? std::copysign(0.0F, x) : x;
       });
     },
     "in the kernel's order"},
    {"loses the sign of 0",
     [](const ConvProblem& p) { return runAndSpoil(p, [](float x) { return x + 0.0F; }); },
     "in the kernel's order"},
    {"loses what is not a number",
     [](const ConvProblem& p) {
       return runAndSpoil(p, [](float x) { return std::isnan(x) ? 0.0F : x; });
     },
     "in the kernel's order"},
    {"overflows early",
     [](const ConvProblem& p) {
       return runAndSpoil(p, [](float x) { return x > 1e33F ? INFINITY : x; });
     },
     "in the kernel's order"},
    {"refuses", [](const ConvProblem& p) { return p.outputW != 3 && sound.run(p); }, "refused"},
    {"changes its input",
     [](const ConvProblem& p) {
       const bool done = sound.run(p);
       const_cast<float*>(p.input)[0] += 1;
       return done;
     },
     "changed its operands"},
    {"writes in front of its output",
     [](const ConvProblem& p) {
       p.output[-1] = 0;
       return sound.run(p);
     },
     "wrote outside the output"},
    {"writes behind whole blocks",
     [](const ConvProblem& p) {
       const bool done = sound.run(p);
       p.output[outputCount(p)] = 0;
       return done;
     },
     "wrote behind the output"},
    {"writes behind the spare room",
     [](const ConvProblem& p) {
       p.output[outputCount(p) + 16] = 0;
       return sound.run(p);
     },
     nullptr},
    {"reads in front of its input",
     [](const ConvProblem& p) {
       sink = p.input[-1];
       return sound.run(p);
     },
     nullptr},
    {"reads behind its input",
     [](const ConvProblem& p) {
       sink = p.input[p.inputH * p.inputW * p.inputC];
       return sound.run(p);
     },
     nullptr},
    {"reads behind its bias and the room there",
     [](const ConvProblem& p) {
       if (p.bias != nullptr)
         sink = p.bias[p.outputC + 16];
       return sound.run(p);
     },
     nullptr},
};

TEST(ConvSweepItself, catchesBrokenKernels) {
  static SumRule rule;  // a SweptKernel's is a plain function
  for (const Broken& broken : brokenKernels) {
    ConvKernel kernel = sound;
    kernel.run = broken.run;
    rule = broken.rule;
    const SweptKernel swept = {&kernel, [](Lead&) {},
                               [](const ConvProblem&, int32_t) { return rule; }};
    expectCaught(broken.what, broken.caughtBy, [&swept] { return sweepKernel(swept, 400); });
  }
}

}  // namespace
}  // namespace TavroRTC::FDModule
