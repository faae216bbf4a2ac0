// The first layer of a network on a processor without AVX: 3x3, stride 2, padding 1, on a picture
// of one or three channels. Three input rows are in hand at a time. Floats are read in place; bytes
// are converted row by row as the window moves down by two: the old bottom row becomes the top row.
//
// Order of a sum after the bias, for each ky: kx 0 and kx 2 in turn for each channel, then kx 1 for
// each channel.

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include "engine/number_conversion.h"
#include "engine/simd/conv_kernels.h"
#include "engine/simd/vectors.h"
#include "engine/weight_packing.h"

namespace TavroRTC::FDModule::simd {
namespace {

constexpr int32_t tile = 4;
constexpr int32_t block = 4;

using Rows = std::array<const float*, 3>;

// Provides the three input rows of one output row after another; above the image lies a zero row.
class InputRows {
 public:
  InputRows(const ConvProblem& p, int32_t channels)
      : p_(p), rowLength_(static_cast<size_t>(p.inputW) * static_cast<size_t>(channels)) {
    const size_t rowCount = p.input != nullptr ? 1 : 3;
    scratch_ = allocateAligned<float>(rowLength_ * rowCount);
    if (scratch_ == nullptr)
      return;
    top_ = scratch_.get();
    std::memset(top_, 0, rowLength_ * sizeof(float));
    if (p.input == nullptr) {
      middle_ = top_ + rowLength_;
      bottom_ = middle_ + rowLength_;
    }
  }

  bool isReady() const { return scratch_ != nullptr; }

  /// The rows of output row y. To be called for y = 0, 1, 2, ... in turn.
  Rows advanceTo(int32_t y) {
    const ptrdiff_t length = static_cast<ptrdiff_t>(rowLength_);
    if (p_.input != nullptr) {
      const float* first = p_.input + (2 * y - 1) * length;
      return {y == 0 ? top_ : first, first + length, first + 2 * length};
    }
    if (y > 0)
      std::swap(top_, bottom_);
    convertRow(2 * y, middle_);
    convertRow(2 * y + 1, bottom_);
    return {top_, middle_, bottom_};
  }

 private:
  void convertRow(int32_t row, float* destination) const {
    bytesToFloat(p_.bytes + row * static_cast<ptrdiff_t>(rowLength_), destination,
                 static_cast<int64_t>(rowLength_), p_.byteMean, p_.byteScale);
  }

  const ConvProblem& p_;
  size_t rowLength_;
  AlignedBuffer<float> scratch_;
  float* top_ = nullptr;
  float* middle_ = nullptr;
  float* bottom_ = nullptr;
};

// Tap kx of all four pixels, for one input channel. `input` is that channel at column 2 * x - 1.
// The tap that would lie in the left padding is left out.
inline void accumulateTap(Sums<Float4, block, tile>& sums, const float* input, int32_t pixelStride,
                          Float4 weight, bool isInPadding) {
  for (int pixel = isInPadding ? 1 : 0; pixel < tile; ++pixel)
    sums.at[pixel][0] =
        multiplyAdd(Float4::broadcast(input + pixel * pixelStride), weight, sums.at[pixel][0]);
}

template <int channels, bool atLeftEdge>
void computeTile(const ConvProblem& p, const Rows& rows, const float* bias, int32_t x,
                 float* output) {
  constexpr int32_t pixelStride = 2 * channels;
  const float* weights = p.weights;
  for (int32_t channel = 0; channel < p.outputC; channel += block) {
    Sums<Float4, block, tile> sums;
    sums.start(bias + channel);
    for (const float* row : rows) {
      const float* input = row + (2 * x - 1) * channels;
      const auto tap = [&](int kx, int i, bool isInPadding) {
        accumulateTap(sums, input + kx * channels + i, pixelStride,
                      Float4::load(weights + (kx * channels + i) * block), isInPadding);
      };
      for (int i = 0; i < channels; ++i) {
        tap(0, i, atLeftEdge);
        tap(2, i, false);
      }
      for (int i = 0; i < channels; ++i)
        tap(1, i, false);
      weights += 3 * channels * block;
    }
    sums.store(output + channel, p.outputC, p.activation);
  }
}

template <int channels>
bool runKernel(const ConvProblem& p) {
  if (p.input == nullptr && p.bytes == nullptr)
    return false;
  const auto bias = paddedBias(p, block);
  InputRows inputRows(p, channels);
  if (bias == nullptr || !inputRows.isReady())
    return false;
  for (int32_t y = 0; y < p.outputH; ++y) {
    const Rows rows = inputRows.advanceTo(y);
    float* output = p.output + static_cast<ptrdiff_t>(y) * p.outputW * p.outputC;
    computeTile<channels, true>(p, rows, bias.get(), 0, output);
    for (int32_t next = tile; next < p.outputW; next += tile) {
      const int32_t x = std::min(next, p.outputW - tile);
      computeTile<channels, false>(p, rows, bias.get(), x,
                                   output + static_cast<ptrdiff_t>(x) * p.outputC);
    }
  }
  return true;
}

// Every window but those of the first row and column lies inside the image, which an even picture
// with padding 1 in front ensures.
template <int channels>
bool serves(const ConvProblem& p) {
  return p.group == 1 && p.isKernel(3, 3) && p.isStride(2, 2) && !p.isDilated() && p.padLeft == 1 &&
         p.padTop == 1 && p.inputC == channels && p.outputC % block == 0 && p.outputW >= tile &&
         2 * p.outputW <= p.inputW && 2 * p.outputH <= p.inputH;
}

}  // namespace

constinit const ConvKernel convSse3x3s2c3_4x4 = {
    "convSse3x3s2c3_4x4",     layout::block4, fusesReluFamily,
    ConvInput::floatsOrBytes, serves<3>,      runKernel<3>};
constinit const ConvKernel convSse3x3s2c1_4x4 = {
    "convSse3x3s2c1_4x4",     layout::block4, fusesReluFamily,
    ConvInput::floatsOrBytes, serves<1>,      runKernel<1>};

}  // namespace TavroRTC::FDModule::simd
