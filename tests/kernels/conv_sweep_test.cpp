// Runs every convolution kernel over random geometry that it says it serves, and over contents at
// the edges of the number range, on memory with guard pages. Each must compute the sums of its
// stated order, bit for bit, and touch nothing else.

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "engine/aligned_memory.h"
#include "engine/cpu_info.h"
#include "engine/weight_packing.h"
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
  std::optional<std::vector<float>> bias;

  ConvOperands operands() const {
    return {input.data(), weights.data(), bias ? bias->data() : nullptr};
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

struct GuardedOperands {
  GuardedBuffer<float> input;
  GuardedBuffer<uint8_t> bytes;
  GuardedBuffer<float> weights;
  GuardedBuffer<float> bias;
  GuardedBuffer<float> output;

  GuardedOperands(const Case& c, const ConvKernel& kernel, Guard guard)
      : input(c.input.size(), guard),
        bytes(c.bytes.size(), guard),
        weights(*packedElementCount(extents(c), kernel.weightLayout) + spareFloats, guard),
        bias(static_cast<size_t>(c.problem.outputC) + spareFloats, guard),
        output(outputExtents(c.problem).count() + spareFloats, guard) {
    std::ranges::copy(c.input, input.begin());
    std::ranges::copy(c.bytes, bytes.begin());
    std::ranges::fill(weights, spareValue);
    packWeights(c.weights.data(), weights.data(), extents(c), layout::channelsLast,
                kernel.weightLayout);
    std::ranges::fill(bias, spareValue);
    if (c.bias)
      std::ranges::copy(*c.bias, bias.begin());
  }

  static TensorExtents extents(const Case& c) {
    const auto [n, h, w, channels] = weightExtents(c.problem);
    return {n, h, w, channels};
  }
  bool intact() const {
    return output.intact() && input.intact() && bytes.intact() && weights.intact() && bias.intact();
  }
  /// True if the spare room behind the output is as it was.
  bool isSpareUntouched() const {
    const auto* first = reinterpret_cast<const uint8_t*>(output.end() - spareFloats);
    return std::all_of(first, first + spareBytes,
                       [](uint8_t byte) { return byte == GuardedBuffer<float>::poison; });
  }
};

std::vector<float> computeExpected(const Case& c, Rule rule) {
  std::vector<float> expected;
  const ConvProblem& p = c.problem;
  for (int32_t y = 0; y < p.outputH; ++y)
    for (int32_t x = 0; x < p.outputW; ++x)
      for (int32_t channel = 0; channel < p.outputC; ++channel)
        expected.push_back(convolveInOrder(p, c.operands(), rule(p, x), {y, x, channel}));
  return expected;
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

testing::AssertionResult runCase(const SweptKernel& swept, const Case& c,
                                 const std::vector<float>& expected, Guard guard) {
  GuardedOperands memory(c, *swept.kernel, guard);
  const std::vector<float> weights(memory.weights.begin(), memory.weights.end());
  ConvProblem p = c.problem;
  p.input = c.givesFloats ? memory.input.data() : nullptr;
  p.bytes = c.bytes.empty() ? nullptr : memory.bytes.data();
  p.weights = memory.weights.data();
  p.bias = c.bias ? memory.bias.data() : nullptr;
  p.output = memory.output.data();
  if (!swept.kernel->run(p))
    return testing::AssertionFailure() << "refused";
  if (!memory.intact())
    return testing::AssertionFailure() << "wrote outside the output and its spare room";
  if (!isUnchanged(c.input, memory.input.data()) || !isUnchanged(c.bytes, memory.bytes.data()) ||
      !isUnchanged(weights, memory.weights.data()))
    return testing::AssertionFailure() << "changed its operands";
  if (p.outputC % layoutBlockSize(swept.kernel->weightLayout, p.outputC) == 0 &&
      !memory.isSpareUntouched())
    return testing::AssertionFailure() << "wrote behind the output, though all blocks are whole";
  return checkOutput(p, expected, memory.output);
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

testing::AssertionResult sweepKernel(const SweptKernel& swept, int32_t count) {
  return sweep(count, [&swept](Random& random, int32_t /*i*/) -> testing::AssertionResult {
    const std::optional<ConvProblem> geometry = drawServed(swept, random);
    if (!geometry)
      return testing::AssertionFailure() << "serves next to nothing";
    const Case c = drawCase(*swept.kernel, *geometry, random);
    const std::vector<float> expected = computeExpected(c, swept.rule);
    for (const Guard guard : {Guard::behind, Guard::inFront})
      if (testing::AssertionResult result = runCase(swept, c, expected, guard); !result)
        return result << "; " << swept.kernel->name << ": " << c.problem << " content "
                      << static_cast<int>(c.content) << " bias " << c.bias.has_value() << " floats "
                      << c.givesFloats;
    return testing::AssertionSuccess();
  });
}

// --- The kernels ---

class ConvSweep : public testing::TestWithParam<SweptKernel> {};

TEST_P(ConvSweep, matchesTheStatedOrder) {
  if (GetParam().needs == Needs::avxAndFma && !cpuInfo().runsAvxAndFma())
    GTEST_SKIP() << "needs AVX and FMA";
  EXPECT_TRUE(sweepKernel(GetParam(), caseCount(200)));
}

INSTANTIATE_TEST_SUITE_P(AllKernels, ConvSweep, testing::ValuesIn(sweptKernels()),
                         [](const testing::TestParamInfo<SweptKernel>& swept) {
                           return std::string(swept.param.kernel->name);
                         });

}  // namespace
}  // namespace TavroRTC::FDModule
