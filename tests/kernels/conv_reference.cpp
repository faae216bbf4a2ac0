#include "tests/kernels/conv_reference.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace TavroRTC::FDModule {

std::ostream& operator<<(std::ostream& out, const ConvProblem& p) {
  return out << "input " << p.inputH << 'x' << p.inputW << 'x' << p.inputC << ", output "
             << p.outputH << 'x' << p.outputW << 'x' << p.outputC << ", kernel " << p.kernelH << 'x'
             << p.kernelW << ", strides " << p.strideH << ' ' << p.strideW << ", dilations "
             << p.dilationH << ' ' << p.dilationW << ", padding top " << p.padTop << " bottom "
             << p.padBottom << " left " << p.padLeft << " right " << p.padRight << ", groups "
             << p.group << ", activation " << p.activation.kind;
}

}  // namespace TavroRTC::FDModule

namespace tavro::test {

// --- Sizes ---

namespace {

/// a * b + c with one rounding, as the processor's instruction returns it. Some C libraries round
/// twice in fmaf(), that of Windows among them.
///
/// The product is exact in double precision. The sum is rounded to odd there: to the neighbour with
/// the odd last bit unless it is exact, so that no tie arises when it is then rounded to single
/// precision (Boldo, Melquiond: Emulation of FMA and correctly rounded sums, 2008).
float fusedMultiplyAdd(float a, float b, float c) {
  const double product = double{a} * double{b};
  const double sum = product + double{c};
  const double addend = sum - product;
  const double error = (product - (sum - addend)) + (double{c} - addend);
  const auto bits = std::bit_cast<uint64_t>(sum);
  if (!std::isfinite(sum) || error == 0 || (bits & 1) != 0)
    return static_cast<float>(sum);
  const uint64_t odd = (error > 0) == (sum > 0) ? bits + 1 : bits - 1;
  return static_cast<float>(std::bit_cast<double>(odd));
}

int32_t positions(int32_t extent, int32_t padding, int32_t kernel, int32_t dilation, int32_t stride,
                  Overhang overhang) {
  const int32_t room = extent + padding - ((kernel - 1) * dilation + 1);
  const int32_t least = overhang == Overhang::allowed ? 1 - stride : 0;
  return room < least ? 0 : room / stride + 1;
}

}  // namespace

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

bool deriveOutputSize(ConvProblem& p, Overhang overhang) {
  p.outputH =
      positions(p.inputH, p.padTop + p.padBottom, p.kernelH, p.dilationH, p.strideH, overhang);
  p.outputW =
      positions(p.inputW, p.padLeft + p.padRight, p.kernelW, p.dilationW, p.strideW, overhang);
  return p.outputH > 0 && p.outputW > 0;
}

int64_t termCount(const ConvProblem& p) {
  return int64_t{p.kernelH} * p.kernelW * (p.inputC / p.group) * p.outputH * p.outputW * p.outputC;
}

// --- The reference ---

namespace {

int32_t ceilOfQuotient(int32_t a, int32_t b) {
  return (a + b - 1) / b;
}

struct OutputPosition {
  int32_t y, x, channel;
};

struct Tap {
  int32_t ky, kx;
  int32_t channel;  // within the group
};

// Reads the operands by the formula's indices.
struct Terms {
  const ConvProblem& p;
  const ConvOperands& operands;
  OutputPosition at;
  int32_t channels = p.inputC / p.group;
  int32_t firstChannel = at.channel / (p.outputC / p.group) * channels;

  bool isRowInside(int32_t ky) const { return inside(inputY(ky), p.inputH); }
  bool isColumnInside(int32_t kx) const { return inside(inputX(kx), p.inputW); }
  float input(const Tap& tap) const {
    const int64_t pixel = int64_t{inputY(tap.ky)} * p.inputW + inputX(tap.kx);
    return operands.input[pixel * p.inputC + firstChannel + tap.channel];
  }
  float weight(const Tap& tap) const {
    const int64_t filterRow = int64_t{at.channel} * p.kernelH + tap.ky;
    return operands.weights[(filterRow * p.kernelW + tap.kx) * channels + tap.channel];
  }
  float bias() const { return operands.bias != nullptr ? operands.bias[at.channel] : 0.0F; }

 private:
  static bool inside(int32_t position, int32_t extent) {
    return position >= 0 && position < extent;
  }
  int32_t inputY(int32_t ky) const { return at.y * p.strideH - p.padTop + ky * p.dilationH; }
  int32_t inputX(int32_t kx) const { return at.x * p.strideW - p.padLeft + kx * p.dilationW; }
};

// Calls visit(kx, channel) for all terms of a kernel row.
template <typename Visit>
void forEachInRow(Sequence sequence, int32_t kernelW, int32_t channels, Visit visit) {
  switch (sequence) {
    case Sequence::tapsThenChannels:
      for (int32_t kx = 0; kx < kernelW; ++kx)
        for (int32_t i = 0; i < channels; ++i)
          visit(kx, i);
      break;
    case Sequence::channelsThenTaps:
      for (int32_t i = 0; i < channels; ++i)
        for (int32_t kx = 0; kx < kernelW; ++kx)
          visit(kx, i);
      break;
    case Sequence::outerTapsFirst:
      for (int32_t i = 0; i < channels; ++i)
        for (const int32_t kx : {0, 2})
          visit(kx, i);
      for (int32_t i = 0; i < channels; ++i)
        visit(1, i);
      break;
    case Sequence::middleTapLast:
      for (int32_t i = 0; i < channels; ++i)
        for (const int32_t kx : {0, 2, 1})
          visit(kx, i);
      break;
  }
}

float addTerm(Arithmetic arithmetic, float a, float b, float sum) {
  return arithmetic == Arithmetic::fused ? fusedMultiplyAdd(a, b, sum) : sum + a * b;
}

float valueInOrder(const ConvProblem& p, const ConvOperands& operands, const SumRule& rule,
                   const OutputPosition& at) {
  const Terms terms{p, operands, at};
  const int32_t inLanes = rule.inLanes ? p.kernelW * terms.channels / 4 * 4 : 0;
  float sum = terms.bias();
  float lanes[4] = {};
  for (int32_t ky = 0; ky < p.kernelH; ++ky) {
    const bool isRowInside = terms.isRowInside(ky);
    if (!isRowInside && rule.rows == Outside::noTerm)
      continue;
    int32_t index = 0;
    forEachInRow(rule.sequence, p.kernelW, terms.channels, [&](int32_t kx, int32_t i) {
      const bool isColumnInside = terms.isColumnInside(kx);
      if (isColumnInside || rule.columns == Outside::zeroTerm) {
        const Tap tap = {ky, kx, i};
        const float value = isRowInside && isColumnInside ? terms.input(tap) : 0.0F;
        float& target = index < inLanes ? lanes[index % 4] : sum;
        target = addTerm(rule.arithmetic, value, terms.weight(tap), target);
      }
      ++index;
    });
  }
  if (rule.inLanes)
    for (const float lane : lanes)
      sum += lane;
  return activateInFloat(sum, p.activation);
}

}  // namespace

float activateInFloat(float x, const FusedActivation& activation) {
  const auto relu = [](float v) { return v > 0 ? v : 0.0F; };
  switch (activation.kind) {
    case 1:
      return relu(x);
    case 2:
      return relu(x < activation.clipMax ? x : activation.clipMax);
    case 6:
      return (x < 0 ? x : 0.0F) * activation.leakSlope + relu(x);
    default:
      return x;
  }
}

std::vector<float> convolveInOrder(const ConvProblem& p, const ConvOperands& operands, Rule rule) {
  std::vector<float> output;
  for (int32_t y = 0; y < p.outputH; ++y)
    for (int32_t x = 0; x < p.outputW; ++x)
      for (int32_t channel = 0; channel < p.outputC; ++channel)
        output.push_back(valueInOrder(p, operands, rule(p, x), {y, x, channel}));
  return output;
}

bool isInTileZone(const ConvProblem& p, int32_t x, int32_t tile) {
  const int32_t left = ceilOfQuotient(p.padLeft, p.strideW);
  const int32_t right = ceilOfQuotient(p.padRight, p.strideW);
  const int32_t middle = std::max(p.outputW - left - right, 0) / tile * tile;
  return x >= left && x < left + middle;
}

}  // namespace tavro::test
