// Every convolution kernel over random geometry that it says it serves, on memory with guard pages,
// against the two references of conv_reference.h. The kernels
// are listed in swept_kernels.cpp.

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "engine/aligned_memory.h"
#include "engine/cpu_info.h"
#include "engine/weight_packing.h"
#include "tests/kernels/conv_reference.h"
#include "tests/kernels/extents.h"
#include "tests/kernels/print_conv_problem.h"
#include "tests/kernels/swept_kernels.h"
#include "tests/support/guarded_buffer.h"
#include "tests/support/random.h"

namespace TavroRTC::FDModule {
namespace {

using tavro::test::BoundedValue;
using tavro::test::ConvOperands;
using tavro::test::Guard;
using tavro::test::GuardedBuffer;
using tavro::test::Lead;
using tavro::test::Needs;
using tavro::test::OutputPosition;
using tavro::test::Random;
using tavro::test::Rule;
using tavro::test::SweptKernel;

// --- Random cases ---

const int casesOfEachKernel = tavro::test::caseCount(200);
constexpr int64_t largestCase = 1'000'000;  // terms of the whole output

// Anything that makes sense; most of it no kernel but the general ones serves.
ConvProblem drawGeometry(Random& random) {
  ConvProblem p;
  p.kernelW = random.between(1, 5);
  p.kernelH = random.between(1, 5);
  const int32_t largestPadding = random.chance(0.2) ? 9 : 2;
  for (int32_t* padding : {&p.padLeft, &p.padRight, &p.padTop, &p.padBottom})
    *padding = random.between(0, largestPadding);
  p.strideW = random.between(1, 3);
  p.strideH = random.between(1, 3);
  if (random.chance(0.4)) {
    p.dilationW = random.between(1, 5);
    p.dilationH = random.between(1, 5);
  }
  p.inputH = random.between(1, 40);
  p.inputW = random.between(1, 40);
  p.inputC = random.between(1, 40);
  p.outputC = random.between(1, 40);
  return p;
}

bool isSmallEnough(const ConvProblem& p) {
  return tavro::test::termCount(p) * p.outputH * p.outputW * p.outputC <= largestCase;
}

enum class Content : uint8_t { ordinary, large, tiny, zeros, wild };

Content drawContent(Random& random) {
  constexpr Content rare[] = {Content::large, Content::tiny, Content::zeros, Content::wild};
  return random.chance(0.6) ? Content::ordinary : rare[random.between(0, 3)];
}

// Products of `large` values come near the end of the range, those of `tiny` ones are denormal.
float drawValue(Content content, Random& random) {
  constexpr float extremes[] = {std::numeric_limits<float>::infinity(),
                                -std::numeric_limits<float>::infinity(),
                                std::numeric_limits<float>::quiet_NaN(),
                                std::numeric_limits<float>::max(),
                                -std::numeric_limits<float>::max(),
                                std::numeric_limits<float>::denorm_min(),
                                -0.0F};
  const float value = random.real(-1, 1);
  switch (content) {
    case Content::large:
      return value * 1e17F;
    case Content::tiny:
      return value * 1e-20F;
    case Content::zeros:
      return random.chance(0.8) ? std::copysign(0.0F, value) : value;
    case Content::wild:
      return random.chance(0.03) ? extremes[random.between(0, 6)] : value;
    default:
      return value;
  }
}

void fill(std::vector<float>& values, size_t count, Content content, Random& random) {
  values.resize(count);
  for (float& value : values)
    value = drawValue(content, random);
}

// Values in plain order, before they go to guarded memory.
struct Case {
  ConvProblem problem;  // sizes and activation; no data
  Content content = Content::ordinary;
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
  for (uint8_t& byte : c.bytes)
    byte = random.chance(0.2) ? (random.chance(0.5) ? 0 : 255) : random.byte();
  if (!c.givesFloats)
    std::ranges::transform(c.bytes, c.input.begin(), [&p](uint8_t byte) {
      return (static_cast<float>(byte) - p.byteMean) * p.byteScale;
    });
}

Case drawCase(const ConvKernel& kernel, const ConvProblem& geometry, Random& random) {
  Case c;
  ConvProblem& p = c.problem = geometry;
  c.content = drawContent(random);
  fill(c.input, tavro::test::inputExtents(p).count(), c.content, random);
  fill(c.weights, tavro::test::weightExtents(p).count(), c.content, random);
  if (random.chance(0.8))
    fill(c.bias.emplace(), static_cast<size_t>(p.outputC), c.content, random);
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
        output(tavro::test::outputExtents(c.problem).count() + spareFloats, guard) {
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
    const auto [n, h, w, channels] = tavro::test::weightExtents(c.problem);
    return {n, h, w, channels};
  }
  bool intact() const { return output.intact(); }
  /// True if the spare room behind the output is as it was.
  bool isSpareUntouched() const {
    const auto* first = reinterpret_cast<const uint8_t*>(output.end() - spareFloats);
    return std::all_of(first, first + spareBytes,
                       [](uint8_t byte) { return byte == GuardedBuffer<float>::poison; });
  }
};

bool sameFloat(float a, float b) {
  return (std::isnan(a) && std::isnan(b)) ||
         std::bit_cast<uint32_t>(a) == std::bit_cast<uint32_t>(b);
}

struct Expected {
  std::vector<float> inOrder;
  std::vector<BoundedValue> formula;  // empty for contents that leave the range of floats
};

Expected computeExpected(const Case& c, Rule rule) {
  Expected expected;
  const ConvProblem& p = c.problem;
  for (int32_t y = 0; y < p.outputH; ++y)
    for (int32_t x = 0; x < p.outputW; ++x)
      for (int32_t channel = 0; channel < p.outputC; ++channel) {
        const OutputPosition at = {y, x, channel};
        expected.inOrder.push_back(tavro::test::convolveInOrder(p, c.operands(), rule(p, x), at));
        if (c.content != Content::wild)
          expected.formula.push_back(tavro::test::convolveInDouble(p, c.operands(), at));
      }
  return expected;
}

void checkOutput(const Case& c, const Expected& expected, const GuardedBuffer<float>& output) {
  const ConvProblem& p = c.problem;
  for (size_t i = 0; i < expected.inOrder.size(); ++i) {
    const auto pixel = i / static_cast<size_t>(p.outputC);
    const auto width = static_cast<size_t>(p.outputW);
    const auto where = [&] {
      return testing::Message() << "y " << pixel / width << " x " << pixel % width << " channel "
                                << i % static_cast<size_t>(p.outputC);
    };
    ASSERT_TRUE(sameFloat(output[i], expected.inOrder[i]))
        << where() << ": " << output[i] << ", in the kernel's order " << expected.inOrder[i];
    if (!expected.formula.empty()) {
      ASSERT_NEAR(output[i], expected.formula[i].value, expected.formula[i].error) << where();
    }
  }
}

void runCase(const SweptKernel& swept, const Case& c, const Expected& expected, Guard guard) {
  GuardedOperands memory(c, *swept.kernel, guard);
  ConvProblem p = c.problem;
  p.input = c.givesFloats ? memory.input.data() : nullptr;
  p.bytes = c.bytes.empty() ? nullptr : memory.bytes.data();
  p.weights = memory.weights.data();
  p.bias = c.bias ? memory.bias.data() : nullptr;
  p.output = memory.output.data();
  ASSERT_TRUE(swept.kernel->run(p));
  ASSERT_TRUE(memory.intact()) << "wrote outside the output and its spare room";
  if (p.outputC % layoutBlockSize(swept.kernel->weightLayout, p.outputC) == 0) {
    ASSERT_TRUE(memory.isSpareUntouched())
        << "wrote behind the output, though all blocks are whole";
  }
  checkOutput(c, expected, memory.output);
}

class ConvSweep : public testing::TestWithParam<SweptKernel> {};

TEST_P(ConvSweep, matchesBothReferences) {
  const SweptKernel& swept = GetParam();
  const ConvKernel& kernel = *swept.kernel;
  if (swept.needs == Needs::avxAndFma && !cpuInfo().hasAvxAndFma())
    GTEST_SKIP() << "needs AVX and FMA";
  const uint64_t seed = tavro::test::baseSeed();
  SCOPED_TRACE(tavro::test::seedNote(seed));
  Random random(seed);
  int declined = 0;
  for (int done = 0; done < casesOfEachKernel;) {
    ConvProblem geometry = drawGeometry(random);
    Lead lead(geometry, random);
    swept.lead(lead);
    if (!tavro::test::deriveOutputSize(geometry) || !isSmallEnough(geometry))
      continue;
    // What a kernel reads isn't a matter of sizes, but a reader of pictures alone asks for one.
    const uint8_t picture = 0;
    geometry.bytes = kernel.reads == ConvInput::bytes ? &picture : nullptr;
    if (!kernel.serves(geometry)) {
      ASSERT_LT(++declined, 50 * casesOfEachKernel) << "serves next to nothing";
      continue;
    }
    geometry.bytes = nullptr;
    const Case c = drawCase(kernel, geometry, random);
    SCOPED_TRACE(testing::Message() << kernel.name << " case " << done << ": " << c.problem
                                    << " content " << static_cast<int>(c.content) << " bias "
                                    << c.bias.has_value() << " floats " << c.givesFloats);
    const Expected expected = computeExpected(c, swept.rule);
    for (const Guard guard : {Guard::behind, Guard::inFront})
      runCase(swept, c, expected, guard);
    if (HasFatalFailure())
      return;
    ++done;
  }
}

INSTANTIATE_TEST_SUITE_P(AllKernels, ConvSweep, testing::ValuesIn(tavro::test::sweptKernels()),
                         [](const testing::TestParamInfo<SweptKernel>& swept) {
                           return std::string(swept.param.kernel->name);
                         });

}  // namespace
}  // namespace TavroRTC::FDModule
