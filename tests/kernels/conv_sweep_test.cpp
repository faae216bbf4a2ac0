// Runs every convolution kernel over random geometry that it says it serves, and over contents at
// the edges of the number range, on memory with guard pages. Each must compute the sums of its
// stated order, bit for bit, and touch nothing else; so must its twins.

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "engine/aligned_memory.h"
#include "engine/cpu_info.h"
#include "engine/weight_packing.h"
#include "impl_x86/twins.h"
#include "tests/kernels/swept_kernels.h"
#include "tests/support/guarded_buffer.h"
#include "tests/support/sweep.h"

namespace TavroRTC::FDModule {
namespace {

using namespace tavro::test;

// --- Random cases ---

constexpr int64_t largestCase = 1'000'000;  // terms of the whole output

// Values in plain order, before they go to guarded memory.
struct Case {
  ConvProblem problem;  // sizes and activation; no data
  Content content = Content::random;
  std::vector<float> input;
  std::vector<uint8_t> bytes;  // empty: the kernel gets floats only
  bool givesFloats = true;
  std::vector<float> weights;
  std::vector<float> bias;  // empty: the kernel gets none

  ConvOperands operands() const {
    return {input.data(), weights.data(), bias.empty() ? nullptr : bias.data()};
  }
};

// A kernel that reads pictures gets bytes; one that prefers floats gets floats, bytes or both.
void drawPicture(Case& c, ConvInput reads, Random& random) {
  ConvProblem& p = c.problem;
  c.givesFloats = reads != ConvInput::bytes && random.chance(0.5);
  if (reads == ConvInput::floats || (c.givesFloats && random.chance(0.5)))
    return;
  p.byteMean = random.chance(0.5) ? 0.0F : random.real(0, 255);
  p.byteScale = random.chance(0.5) ? 1.0F / 255 : random.real(-2, 2);
  c.bytes.resize(c.input.size());
  fill(c.bytes, drawContent(random, Content::alternating), random);
  if (!c.givesFloats)
    std::ranges::transform(c.bytes, c.input.begin(), [&p](uint8_t byte) {
      return (static_cast<float>(byte) - p.byteMean) * p.byteScale;
    });
}

Case drawCase(const ConvKernel& kernel, const ConvProblem& geometry, Random& random) {
  Case c;
  ConvProblem& p = c.problem = geometry;
  c.content = drawContent(random, Content::wild);
  c.input = drawFloats(inputExtents(p).count(), random, c.content);
  c.weights = drawFloats(weightExtents(p).count(), random, c.content);
  if (random.chance(0.8))
    c.bias = drawFloats(static_cast<size_t>(p.outputC), random, c.content);
  if (kernel.reads == ConvInput::floats)
    c.givesFloats = true;
  else
    drawPicture(c, kernel.reads, random);
  p.activation.kind = random.between(0, 6);
  if ((kernel.fuses >> p.activation.kind & 1U) == 0)
    p.activation.kind = 0;
  p.activation.clipMax = random.real(0, 2);
  p.activation.leakSlope = random.real(-1, 1);
  return c;
}

// --- One run ---

constexpr size_t spareFloats = spareBytes / sizeof(float);
constexpr float spareValue = std::numeric_limits<float>::quiet_NaN();

std::vector<float> withSpare(std::vector<float> values) {
  values.resize(values.size() + spareFloats, spareValue);
  return values;
}

std::vector<float> packedWeights(const Case& c, int32_t layoutCode) {
  const auto [n, h, w, channels] = weightExtents(c.problem);
  const TensorExtents extents = {n, h, w, channels};
  std::vector<float> packed(*packedElementCount(extents, layoutCode));
  packWeights(c.weights.data(), packed.data(), extents, layout::channelsLast, layoutCode);
  return packed;
}

testing::AssertionResult checkOutput(const ConvProblem& p, const std::vector<float>& expected,
                                     const GuardedBuffer<float>& output) {
  for (size_t i = 0; i < expected.size(); ++i)
    if (!sameFloat(output[i], expected[i])) {
      const auto channels = static_cast<size_t>(p.outputC);
      const auto width = static_cast<size_t>(p.outputW);
      return testing::AssertionFailure()
             << "y " << i / channels / width << " x " << i / channels % width << " channel "
             << i % channels << ": " << output[i] << ", in the kernel's order " << expected[i];
    }
  return testing::AssertionSuccess();
}

testing::AssertionResult runCase(const ConvKernel& kernel, ConvRun* run, const Case& c,
                                 const std::vector<float>& expected, Guard guard) {
  const std::vector<float> allWeights = withSpare(packedWeights(c, kernel.weightLayout));
  const GuardedBuffer<float> input(c.input, guard), weights(allWeights, guard);
  const GuardedBuffer<float> bias(withSpare(c.bias), guard);
  const GuardedBuffer<uint8_t> bytes(c.bytes, guard);
  GuardedBuffer<float> output(expected.size() + spareFloats, guard);
  ConvProblem p = c.problem;
  p.input = c.givesFloats ? input.data() : nullptr;
  p.bytes = c.bytes.empty() ? nullptr : bytes.data();
  p.weights = weights.data();
  p.bias = c.bias.empty() ? nullptr : bias.data();
  p.output = output.data();
  if (!run(p))
    return testing::AssertionFailure() << "refused";
  if (!output.intact())
    return testing::AssertionFailure() << "wrote outside the output and its spare room";
  if (!input.intact() || !bytes.intact() || !weights.intact() || !bias.intact() ||
      !isUnchanged(c.input, input.data()) || !isUnchanged(c.bytes, bytes.data()) ||
      !isUnchanged(allWeights, weights.data()))
    return testing::AssertionFailure() << "changed its operands";
  const auto* spare = reinterpret_cast<const uint8_t*>(output.end() - spareFloats);
  const bool isSpareUntouched = std::all_of(
      spare, spare + spareBytes, [](uint8_t byte) { return byte == GuardedBuffer<float>::poison; });
  if (p.outputC % layoutBlockSize(kernel.weightLayout, p.outputC) == 0 && !isSpareUntouched)
    return testing::AssertionFailure() << "wrote behind the output, though all blocks are whole";
  return checkOutput(p, expected, output);
}

// Geometry that the kernel says it serves; none if it serves next to nothing.
std::optional<ConvProblem> drawServed(const SweptKernel& swept, Random& random) {
  for (int tries = 0; tries < 10'000; ++tries) {
    ConvProblem geometry = drawGeometry(random);
    Lead lead(geometry, random);
    swept.lead(lead);
    if (!deriveOutputSize(geometry) || termCount(geometry) > largestCase)
      continue;
    // What a kernel reads isn't a matter of sizes, but a reader of pictures alone asks for one.
    const uint8_t picture = 0;
    geometry.bytes = swept.kernel->reads == ConvInput::bytes ? &picture : nullptr;
    const bool isServed = swept.kernel->serves(geometry);
    geometry.bytes = nullptr;
    if (isServed)
      return geometry;
  }
  return std::nullopt;
}

testing::AssertionResult sweepKernel(const SweptKernel& swept, ConvRun* run, int32_t count) {
  return sweep(count, [&swept, run](Random& random, int32_t /*i*/) -> testing::AssertionResult {
    const std::optional<ConvProblem> geometry = drawServed(swept, random);
    if (!geometry)
      return testing::AssertionFailure() << "serves next to nothing";
    const Case c = drawCase(*swept.kernel, *geometry, random);
    const auto expected = convolveInOrder(c.problem, c.operands(), swept.rule);
    for (const Guard guard : {Guard::behind, Guard::inFront})
      if (testing::AssertionResult result = runCase(*swept.kernel, run, c, expected, guard);
          !result)
        return result << "; " << swept.kernel->name << ": " << c.problem << " content "
                      << static_cast<int>(c.content) << " bias " << !c.bias.empty() << " floats "
                      << c.givesFloats;
    return testing::AssertionSuccess();
  });
}

// --- The kernels ---

class ConvSweep : public testing::TestWithParam<SweptKernel> {};

TEST_P(ConvSweep, MatchesTheStatedOrder) {
  if (GetParam().needs == Needs::avxAndFma && !cpuInfo().runsAvxAndFma())
    GTEST_SKIP() << "needs AVX and FMA";
  EXPECT_TRUE(sweepKernel(GetParam(), GetParam().kernel->run, caseCount(200)));
}

INSTANTIATE_TEST_SUITE_P(AllKernels, ConvSweep, testing::ValuesIn(sweptKernels()),
                         [](const testing::TestParamInfo<SweptKernel>& swept) {
                           return std::string(swept.param.kernel->name);
                         });

// --- The twins ---

class TwinSweep : public testing::TestWithParam<x86::Twin> {};
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(TwinSweep);

TEST_P(TwinSweep, ComputesWhatItsKernelDoes) {
  const x86::Twin& twin = GetParam();
  if (!twin.isAvailable())
    GTEST_SKIP() << "needs a processor with registers of " << twin.bits << " bits";
  const auto swept = std::ranges::find(sweptKernels(), twin.kernel, &SweptKernel::kernel);
  ASSERT_NE(swept, sweptKernels().end());
  EXPECT_TRUE(sweepKernel(*swept, twin.run, caseCount(300)));
  EXPECT_EQ(x86::widestRun(*twin.kernel), twin.run);
  x86::limitTwins(twin.bits - 1);
  EXPECT_NE(x86::widestRun(*twin.kernel), twin.run);
  x86::limitTwins(512);
}

INSTANTIATE_TEST_SUITE_P(AllTwins, TwinSweep, testing::ValuesIn(x86::twins()),
                         [](const testing::TestParamInfo<x86::Twin>& twin) {
                           return std::string(twin.param.kernel->name)
                               .append("_")
                               .append(std::to_string(twin.param.bits));
                         });

}  // namespace
}  // namespace TavroRTC::FDModule
