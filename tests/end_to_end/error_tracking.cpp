#include "tests/end_to_end/error_tracking.h"

#include <algorithm>
#include <cmath>

namespace tavro::test {
namespace {

constexpr double roundingError = 0x1p-24;

/// The variance of `roundings` independent errors in numbers of this magnitude.
double varianceOf(double roundings, double magnitude) {
  return roundings / 3 * (roundingError * magnitude) * (roundingError * magnitude);
}

size_t asSize(int32_t number) {
  return static_cast<size_t>(number);
}

/// The sums of all output channels of one pixel.
class PixelSums {
 public:
  explicit PixelSums(std::span<const float> bias)
      : bias_(bias.begin(), bias.end()),
        value_(bias.size()),
        magnitude_(bias.size()),
        variance_(bias.size()) {}

  void begin() {
    value_ = bias_;
    std::ranges::transform(bias_, magnitude_.begin(), [](double b) { return std::fabs(b); });
    std::ranges::fill(variance_, 0.0);
  }

  /// Adds to each channel the product of its weight with input `first + channel * step`.
  template <size_t step>
  void add(const Map& input, size_t first, const double* weights) {
    const double* __restrict x = input.value.data() + first;
    const double* __restrict v = input.variance.data() + first;
    double* __restrict value = value_.data();
    double* __restrict magnitude = magnitude_.data();
    double* __restrict variance = variance_.data();
    for (size_t channel = 0; channel < bias_.size(); ++channel) {
      const size_t i = channel * step;
      const double weight = weights[channel];
      const double product = x[i] * weight;
      value[channel] += product;
      magnitude[channel] += std::fabs(product);
      variance[channel] += v[i] * weight * weight;
    }
  }

  void store(Map& output, size_t first, double products) const {
    for (size_t channel = 0; channel < bias_.size(); ++channel) {
      output.value[first + channel] = value_[channel];
      output.variance[first + channel] =
          varianceOf(products + 1, magnitude_[channel]) + variance_[channel];
    }
  }

 private:
  std::vector<double> bias_;
  std::vector<double> value_;
  std::vector<double> magnitude_;  ///< of the terms
  std::vector<double> variance_;   ///< carried over from the inputs
};

/// Calls addTap(sums, tap, input pixel) for every kernel position that lies inside the picture.
template <typename AddTap>
Map slide(const Map& input, Window window, std::span<const float> bias, int32_t productsPerTap,
          AddTap addTap) {
  const auto outputSize = [&](int32_t size) { return (size - 1) / window.stride + 1; };
  Map output(outputSize(input.height), outputSize(input.width), static_cast<int32_t>(bias.size()));
  const int32_t padding = window.side / 2 * window.dilation;
  PixelSums sums(bias);
  for (int32_t y = 0; y < output.height; ++y) {
    for (int32_t x = 0; x < output.width; ++x) {
      sums.begin();
      for (int32_t tap = 0; tap < window.side * window.side; ++tap) {
        const int32_t row = y * window.stride - padding + tap / window.side * window.dilation;
        const int32_t column = x * window.stride - padding + tap % window.side * window.dilation;
        if (row >= 0 && row < input.height && column >= 0 && column < input.width)
          addTap(sums, asSize(tap), input.at(row, column));
      }
      sums.store(output, output.at(y, x), window.side * window.side * productsPerTap);
    }
  }
  return output;
}

}  // namespace

Map::Map(int32_t mapHeight, int32_t mapWidth, int32_t mapChannels)
    : height(mapHeight),
      width(mapWidth),
      channels(mapChannels),
      value(asSize(height) * asSize(width) * asSize(channels)),
      variance(value.size()) {}

Map normalized(std::span<const uint8_t> bytes, int32_t height, int32_t width, int32_t channels) {
  Map map(height, width, channels);
  for (size_t i = 0; i < map.value.size(); ++i) {
    map.value[i] = bytes[i] / 255.0;
    // 1 / 255 is rounded, and so is the product with it.
    map.variance[i] = varianceOf(2, map.value[i]);
  }
  return map;
}

Map convolution(const Map& input, Window window, std::span<const float> weight,
                std::span<const float> bias) {
  const size_t inputs = asSize(input.channels);
  const size_t outputs = bias.size();
  const size_t taps = asSize(window.side * window.side);
  std::vector<double> outputsInnermost(weight.size());
  for (size_t o = 0; o < outputs; ++o)
    for (size_t i = 0; i < inputs; ++i)
      for (size_t tap = 0; tap < taps; ++tap)
        outputsInnermost[(tap * inputs + i) * outputs + o] = weight[(o * inputs + i) * taps + tap];
  return slide(input, window, bias, input.channels, [&](PixelSums& sums, size_t tap, size_t pixel) {
    for (size_t i = 0; i < inputs; ++i)
      sums.add<0>(input, pixel + i, &outputsInnermost[(tap * inputs + i) * outputs]);
  });
}

Map depthwise(const Map& input, Window window, std::span<const float> weight,
              std::span<const float> bias) {
  const size_t channels = bias.size();
  const size_t taps = asSize(window.side * window.side);
  std::vector<double> channelsInnermost(weight.size());
  for (size_t channel = 0; channel < channels; ++channel)
    for (size_t tap = 0; tap < taps; ++tap)
      channelsInnermost[tap * channels + channel] = weight[channel * taps + tap];
  return slide(input, window, bias, 1, [&](PixelSums& sums, size_t tap, size_t pixel) {
    sums.add<1>(input, pixel, &channelsInnermost[tap * channels]);
  });
}

Map relu(Map input) {
  constexpr double deviationsToDoubt = 6;
  for (size_t i = 0; i < input.value.size(); ++i) {
    const double x = input.value[i];
    if (x > 0)
      continue;
    input.value[i] = 0;
    // Only an error that lifts the value above 0 is seen behind the function.
    if (x * x > deviationsToDoubt * deviationsToDoubt * input.variance[i])
      input.variance[i] = 0;
  }
  return input;
}

Map sum(const Map& first, const Map& second) {
  Map result(first.height, first.width, first.channels);
  for (size_t i = 0; i < result.value.size(); ++i) {
    result.value[i] = first.value[i] + second.value[i];
    result.variance[i] = varianceOf(1, result.value[i]) + first.variance[i] + second.variance[i];
  }
  return result;
}

Map concatenation(std::span<const Map* const> inputs) {
  int32_t channels = 0;
  for (const Map* input : inputs)
    channels += input->channels;
  const Map& model = *inputs.front();
  Map result(model.height, model.width, channels);
  const auto interleave = [&](std::vector<double> Map::*field) {
    auto next = (result.*field).begin();
    for (size_t pixel = 0; pixel < asSize(model.height) * asSize(model.width); ++pixel)
      for (const Map* input : inputs) {
        const auto count = static_cast<std::ptrdiff_t>(input->channels);
        const auto begin = (input->*field).begin() + static_cast<std::ptrdiff_t>(pixel) * count;
        next = std::copy(begin, begin + count, next);
      }
  };
  interleave(&Map::value);
  interleave(&Map::variance);
  return result;
}

// A probability is p(d) = 1 / (1 + exp(d)) where d is the other value less its own, and an error of
// d reaches p through the slope p (1 - p). In float d is rounded once; then p passes through two
// exponentials, good to two units in the last place or four roundings each, a sum, a division and a
// product: eleven roundings.
Map softmaxOfPairs(const Map& input) {
  constexpr double roundings = 11;
  Map result(input.height, input.width, input.channels);
  for (size_t i = 0; i < input.value.size(); ++i) {
    const size_t other = i ^ 1U;
    const double difference = input.value[other] - input.value[i];
    const double probability = 1 / (1 + std::exp(difference));
    const double slope = probability * (1 - probability);
    const double carried = input.variance[i] + input.variance[other] + varianceOf(1, difference);
    result.value[i] = probability;
    result.variance[i] = slope * slope * carried + varianceOf(roundings, probability);
  }
  return result;
}

}  // namespace tavro::test
